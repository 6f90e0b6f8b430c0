#!/usr/bin/env bash
# Installs what the benchmarks compare with, builds them, and prints one table. Arguments go to run.py (--help).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

../.ci/install-packages build bench >&2
if ! command -v npm >/dev/null; then
    as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends nodejs npm >&2
fi
npm ci --silent >&2
../.ci/build bench >&2
exec /usr/bin/python3 run.py "$@"
