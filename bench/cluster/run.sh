#!/usr/bin/env bash
# Installs what a cluster is compared with, builds, and prints one table within six minutes. Arguments go to rounds.py (--help).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

../../.ci/install-packages build bench >&2
../../.ci/build bench velmora-server load_bench cluster_bench >&2
exec /usr/bin/python3 -B rounds.py "$@"
