#!/usr/bin/env bash
# container.sh: the container as its users meet it, built with buildah from packaging/Containerfile on a bare Debian 12 that
# debootstrap has made (MIRROR, build/bare.tar: see run.sh), and run beside this: who it runs as, that it answers, that
# its health check tells the truth, that what it holds is in the volume, and how it ends. Wants root, buildah, debootstrap.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
export STORAGE_DRIVER=vfs BUILDAH_ISOLATION=chroot
complain() { echo "$*" >&2 && exit 1; }
[ "$(id -u)" -eq 0 ] || complain "debootstrap wants root."
work="$(mktemp -d)"
containers=()
server=""
finish() {
    [ -z "$server" ] || kill -KILL "$server" 2>/dev/null || true
    [ "${#containers[@]}" -eq 0 ] || buildah rm "${containers[@]}" >/dev/null 2>&1 || true
    buildah rmi velmora-server-test velmora-bare >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap finish EXIT

echo "==== A bare Debian 12 as the image's base"
tests/packaging/bare.sh
containers+=("$(buildah from scratch)")
buildah add -q "${containers[0]}" build/bare.tar / >/dev/null
buildah config --cmd /bin/bash "${containers[0]}"
buildah commit -q "${containers[0]}" velmora-bare >/dev/null
buildah rm "${containers[0]}" >/dev/null
containers=()

echo "==== Both stages"
# What ccache knows on this machine serves the first one.
cache="${CCACHE_DIR:-$HOME/.cache/ccache}"
mkdir -p "$cache"
buildah build --pull-never --format docker --build-arg BASE=localhost/velmora-bare --env CCACHE_NOHASHDIR=true \
    --volume "$cache:/root/.cache/ccache" -f packaging/Containerfile -t velmora-server-test . >build/container.log 2>&1 ||
    { tail -40 build/container.log && complain "The image cannot be built: build/container.log."; }

# of FIELD: of the image's configuration, as JSON.
of() { buildah inspect --type image velmora-server-test | python3 -c '
import json, sys
print(json.dumps(json.load(sys.stdin)["Docker"]["config"].get(sys.argv[1])))' "$1"; }
[ "$(of User)" = '"velmora"' ] || complain "It does not run as velmora, but as $(of User)."
[ "$(of Volumes)" = '{"/var/lib/velmora": {}}' ] || complain "The state is in no volume: $(of Volumes)."
[ "$(of Healthcheck)" != null ] || complain "The image has no health check."
words() { of "$1" | python3 -c 'import json, sys; print("\n".join(json.load(sys.stdin)["Test"][1:] if sys.argv[1] == "Healthcheck" else json.load(sys.stdin)))' "$1"; }

# within CONTAINER COMMAND...: as podman runs it, with volume and token, on this machine's network.
mkdir "$work/state"
chown 8080:8080 "$work/state"
(umask 077 && echo "a-token-of-the-container's-own" >"$work/token" && chown 8080:8080 "$work/token")
port="$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')"
url="http://127.0.0.1:$port"
within() {
    local container="$1"
    shift
    buildah run --env "VELMORA_URL=$url" --volume "$work/state:/var/lib/velmora" --volume "$work/token:/etc/velmora/token:ro" \
        "$container" -- "$@"
}
ask() { curl -sS --max-time 15 -H "Authorization: Bearer $(cat "$work/token")" -H "Content-Type: application/json" "$@"; }

# start: a container of the image; sets container and server, which is the process that got the signal to end.
start() {
    container="$(buildah from --pull-never velmora-server-test)"
    containers+=("$container")
    mapfile -t entry < <(words Entrypoint)
    within "$container" "${entry[@]}" --listen "127.0.0.1:$port" >"$work/output" 2>&1 &
    for _ in $(seq 300); do
        curl -sf "$url/readyz" >"$work/ready" 2>/dev/null && break
        kill -0 $! 2>/dev/null || { cat "$work/output" && complain "The container has ended."; }
        sleep 0.1
    done
    server="$(pgrep -f -- "^velmora-server .*--listen 127.0.0.1:$port" | tail -1)"
    [ -n "$server" ] && [ -s "$work/ready" ] || { cat "$work/output" && complain "The container does not get ready."; }
}
# healthy: what the health check says.
healthy() {
    mapfile -t check < <(words Healthcheck)
    within "$container" "${check[@]}"
}
# end: as "podman stop" does it.
end() {
    kill -TERM "$server"
    wait %% || { cat "$work/output" && complain "It does not end as it should: status $?."; }
    server=""
}

echo "==== It runs"
! within "$(buildah from --pull-never --name velmora-unhealthy velmora-server-test)" velmora status >/dev/null 2>&1 ||
    complain "The health check is content without a server."
containers+=(velmora-unhealthy)
start
[ "$(awk '/^Uid:/ {print $2}' "/proc/$server/status")" = 8080 ] || complain "It does not run as user 8080."
curl -sfS "$url/healthz"
echo
healthy || complain "The health check fails beside a server that answers."
[ "$(curl -s -o /dev/null -w '%{http_code}' "$url/api/v1/events")" = 401 ] || complain "It lets in who has no token."
[ "$(ask -o /dev/null -w '%{http_code}' -d '{"event_name": "kept"}' "$url/api/v1/events")" = 201 ] || complain "No event is made."
end
[ "$(stat -c '%u %a' "$work/state/queue.json")" = "8080 600" ] || complain "The state is not the server's alone."

echo "==== Another container with its volume"
start
ask "$url/api/v1/events" | grep -q '"kept"' || complain "The event is not in the volume."
end
echo "==== The container is fine."
