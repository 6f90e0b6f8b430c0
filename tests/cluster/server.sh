# To be sourced: VELMORA_SERVER, built where none is named, and `here`, this folder, and `root`.
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$here/../.."
if [ -z "${VELMORA_SERVER:-}" ]; then
    "$root/.ci/install-packages" build checks
    "$root/.ci/build" release velmora-server
    VELMORA_SERVER="$root/build/release/server/velmora-server"
fi
export VELMORA_SERVER
