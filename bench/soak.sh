#!/usr/bin/env bash
# Builds the server and lets everything happen to it at once for five minutes. Arguments go to soak.py (--help).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
../.ci/install-packages build bench >&2
../.ci/build bench velmora-server >&2
exec /usr/bin/python3 soak.py "$@"
