#!/usr/bin/env bash
# Starts a cluster on this machine: a nats-server with JetStream and three nodes, on free ports of loopback. Ctrl-C ends
# everything. The server is $VELMORA_SERVER, or the one that run.sh builds.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
command -v nats-server >/dev/null || { echo "nats-server is not installed (Debian: apt-get install nats-server)" >&2; exit 1; }
server="${VELMORA_SERVER:-$root/build/release/server/velmora-server}"
if [ ! -x "$server" ]; then
    "$root/.ci/install-packages" build >&2
    "$root/.ci/build" release velmora-server >&2
fi

folder="$(mktemp -d)"
started=()
finish() {
    [ "${#started[@]}" -eq 0 ] || kill "${started[@]}" 2>/dev/null || true
    wait
    rm -rf "$folder"
}
trap finish EXIT
trap 'exit 0' INT TERM

port="$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')"
nats-server -a 127.0.0.1 -p "$port" -js -sd "$folder/store" >"$folder/nats.log" 2>&1 &
started+=($!)
for node in a b c; do
    printf '{"Cluster": {"Name": "example", "Node": "%s", "Servers": ["nats://127.0.0.1:%s"]}}' "$node" "$port" >"$folder/$node.json"
    "$server" --config "$folder/$node.json" 2>"$folder/$node.log" | sed -u "s/^/node $node: /" &
    started+=("$(jobs -p %% | tail -1)")
done
wait
