#!/usr/bin/env bash
# Three minutes of chaos on three nats-servers and three nodes; see chaos.py, which takes --seconds and --seed. VELMORA_SERVER
# names another server than the release build's.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/server.sh"
exec /usr/bin/python3 -B "$here/chaos.py" "$@"
