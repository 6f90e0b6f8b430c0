#!/usr/bin/env bash
# Three minutes of chaos on three nats-servers and three nodes; see chaos.py, which takes --seconds and --seed. VELMORA_SERVER
# names another server than the release build's.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$here/../.."
if [ -z "${VELMORA_SERVER:-}" ]; then
    "$root/.ci/install-packages" build checks
    "$root/.ci/build" release velmora-server
    VELMORA_SERVER="$root/build/release/server/velmora-server"
fi
export VELMORA_SERVER
exec /usr/bin/python3 -B "$here/chaos.py" "$@"
