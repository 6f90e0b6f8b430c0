#!/usr/bin/env bash
# run.sh [PACKAGES]: the Debian packages as their users meet them: as they are made (check.sh), then in a bare Debian 12
# installed, run, upgraded over, removed and purged. Builds them first where no directory with them is given. Wants root,
# lintian and debootstrap; MIRROR may name Debian's mirror. The bare Debian is kept in build/bare.tar for the next time.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
packages="${1:-}"
[ -n "$packages" ] || { packaging/build-packages build/packages && packages=build/packages; }
complain() { echo "$*" >&2 && exit 1; }
[ "$(id -u)" -eq 0 ] || complain "debootstrap wants root."

echo "==== Made"
tests/packaging/check.sh "$packages"

echo "==== A bare Debian 12"
root="$(mktemp -d)"
trap 'umount "$root/proc" 2>/dev/null || true; rm -rf "$root"' EXIT
tests/packaging/bare.sh
tar -C "$root" -xf build/bare.tar
mount -t proc proc "$root/proc"
cp /etc/resolv.conf "$root/etc/"
mkdir "$root/packages"
cp "$packages"/*.deb "$root/packages"
inside() { DEBIAN_FRONTEND=noninteractive chroot "$root" "$@"; }

echo "==== Installed"
inside apt-get update -q >/dev/null
inside sh -c 'apt-get install -y --no-install-recommends python3-minimal /packages/*.deb' >"$root/installed" 2>&1 ||
    { cat "$root/installed" && complain "The packages cannot be installed."; }
inside id velmora
[ "$(inside stat -c '%U %a' /var/lib/velmora)" = "velmora 700" ] || complain "The state directory is not the server's."
[ ! -e "$root/etc/systemd/system/multi-user.target.wants/velmora-server.service" ] || complain "It was enabled unasked."
! inside pgrep velmora-server >/dev/null 2>&1 || complain "It was started unasked."
for name in velmora-server velmora; do
    [ -s "$root/usr/share/man/man1/$name.1.gz" ] || complain "$name has no manual page."
    [ -s "$root/usr/share/bash-completion/completions/$name" ] || complain "$name has no completions."
done

# serve PROGRAM-TEXT: runs the Python text, as the server's own user, beside a server that is as the unit starts it.
serve() {
    inside setpriv --reuid velmora --regid velmora --clear-groups env HOME=/var/lib/velmora python3 -c '
import os, signal, subprocess, sys, urllib.request
check = ["velmora-server", "--config", "/etc/velmora/velmora-server.json"]
subprocess.run([*check, "--check"], check=True)
server = subprocess.Popen(check, stdout=subprocess.PIPE, text=True)
url = server.stdout.readline().split()[-1]
def call(method, path, body=None):
    request = urllib.request.Request(url + path, body, {"Content-Type": "application/json"}, method=method)
    return urllib.request.urlopen(request).read().decode()
try:
    exec(sys.argv[1])
finally:
    server.send_signal(signal.SIGTERM)
    assert server.wait() == 0
' "$1"
}
serve '
call("POST", "/api/v1/events", b"{\"event_name\": \"kept\"}")
call("POST", "/api/v1/events/kept")
assert "Velmora" in call("GET", "/") or "<html" in call("GET", "/")
subprocess.run(["velmora", "--server", url, "status"], check=True)
'

echo "==== Upgraded over"
sed -i 's/"notice"/"info"/' "$root/etc/velmora/velmora-server.json"
inside sh -c 'mkdir /newer && cd /newer && for package in /packages/*.deb; do
    dpkg-deb -R "$package" tree && sed -i -E "s/^Version: .*/Version: 99/; s/\(= [^)]*\)/(= 99)/g" tree/DEBIAN/control &&
    dpkg-deb --root-owner-group -b tree "$(basename "$package")" >/dev/null && rm -rf tree; done
    dpkg -i ./*.deb' >"$root/upgraded" 2>&1 || { cat "$root/upgraded" && complain "The upgrade fails."; }
grep -q '"info"' "$root/etc/velmora/velmora-server.json" || complain "The upgrade has overwritten the configuration."
serve 'assert "\"kept\"" in call("GET", "/api/v1/events")'

echo "==== Removed and purged"
inside dpkg --remove velmora-server >/dev/null
[ -e "$root/var/lib/velmora/queue.json" ] || complain "Removing has deleted the saved queue."
[ -e "$root/etc/velmora/velmora-server.json" ] || complain "Removing has deleted the configuration."
[ ! -e "$root/usr/bin/velmora-server" ] || complain "Removing has left the program."
inside dpkg --purge velmora-server velmora-client libeventmanager-dev libeventmanager1 >/dev/null
left="$(inside find /etc /usr /var -xdev '(' -path '*velmora*' -o -ipath '*eventmanager*' ')' -not -path '/var/lib/dpkg/*' \
    -not -path '/var/log/*' -not -path '/var/cache/*')"
[ -z "$left" ] || complain "Purging has left: $left"
echo "==== The packages are fine."
