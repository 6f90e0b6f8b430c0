#!/usr/bin/env bash
# Builds the server (installing what that needs on Debian 12) and starts it. Arguments are passed on to velmora-server;
# where they name no configuration, it runs examples/quickstart.json.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"

"$root/.ci/install-packages" build >&2
"$root/.ci/build" release velmora-server >&2

configuration=(--config "$root/examples/quickstart.json")
for argument in "$@"; do
    case "$argument" in
        --config | --config=*) configuration=() ;;
    esac
done
# The history's memory comes in huge pages where the system has them: a posting then costs less than half.
export GLIBC_TUNABLES="${GLIBC_TUNABLES:-glibc.malloc.hugetlb=1}"
exec "$root/build/release/server/velmora-server" "${configuration[@]}" "$@"
