#!/usr/bin/env bash
# What a cluster promises, over real nats-servers on loopback: two nodes and what becomes of them, other people's clients, an
# engine that asks for a password and TLS, and a short form of the chaos with clocks minutes apart: nodes are killed and stopped,
# one of the engine's servers killed, consumers deleted, postings purged, their stream made anew. chaos.sh kills the leaders as
# well, after which Debian 12's engine does not always keep its own replicas alike. VELMORA_SERVER names another server than the release build's.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/server.sh"
command -v npm >/dev/null || "$root/.ci/install-packages" node

work="$root/build/cluster"
mkdir -p "$work"
cp "$here"/package*.json "$here"/nats-client.mjs "$work"
if [ ! -d "$work/node_modules" ] || ! cmp --silent "$work/package-lock.json" "$work/node_modules/installed"; then
    (cd "$work" && npm ci --no-audit --no-fund --loglevel=error && cp package-lock.json node_modules/installed)
fi
export NATS_CLIENT="$work/nats-client.mjs"

node "$here/smoke.mjs" "$VELMORA_SERVER"
/usr/bin/python3 -B -m unittest discover -s "$here" -p "*_test.py"
/usr/bin/python3 -B "$here/chaos.py" --seconds 12 \
    --only kill_node kill_other_engine stop_node delete_consumers purge anew
