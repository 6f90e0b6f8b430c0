#!/usr/bin/env bash
# check.sh [PACKAGES]: the Debian packages as they are made, without installing them: lintian, what they depend on, what
# they hold, and whether their programs run from there. Builds them first where no directory with them is given. Wants
# lintian. How they are installed, upgraded and removed is run.sh's.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
packages="${1:-}"
[ -n "$packages" ] || { packaging/build-packages build/packages >build/packages.log && packages=build/packages; }
complain() { echo "$*" >&2 && exit 1; }

# Whose licence it is, is not decided; nobody has asked for an upload to Debian (no bug number, any address).
lintian --allow-root --fail-on error --suppress-tags bogus-mail-host,initial-upload-closes-no-bugs "$packages"/*.deb

tree="$(mktemp -d)"
trap 'rm -rf "$tree"' EXIT
for name in libeventmanager1 libeventmanager-dev velmora-server velmora-client; do
    package=("$packages/$name"_*.deb)
    [ -e "${package[0]}" ] && [ "${#package[@]}" -eq 1 ] || complain "There is not one package $name."
    dpkg-deb -x "${package[0]}" "$tree/$name"
    dpkg-deb -f "${package[0]}" Depends >"$tree/$name.depends"
    ! dpkg-deb -c "${package[0]}" | grep -v '^[^ ]* root/root ' || complain "$name holds what is not root's."
done

# depends PACKAGE PATTERN...: each pattern, or with a "!" before it none, is among what the package depends on.
depends() {
    local name="$1" pattern
    shift
    for pattern in "$@"; do
        if [ "${pattern#!}" = "$pattern" ]; then
            grep -qE "(^|, )$pattern" "$tree/$name.depends" || complain "$name does not depend on $pattern."
        else
            ! grep -qE "(^|, )${pattern#!}" "$tree/$name.depends" || complain "$name depends on ${pattern#!}."
        fi
    done
}
depends libeventmanager1 libcurl4 libpython3 libssl3 '!libnats' '!libsqlite' '!libeventmanager'
depends velmora-server 'libeventmanager1 \(= ' libnats libsqlite3 libssl3 'systemd \| systemd-sysusers'
depends velmora-client 'libeventmanager1 \(= ' libcurl4 '!libpython' '!libnats' '!libsqlite'
depends libeventmanager-dev 'libeventmanager1 \(= '

holds() {
    local name="$1" path
    shift
    for path in "$@"; do [ -s "$tree/$name/$path" ] || complain "$name does not hold /$path."; done
}
holds velmora-server usr/bin/velmora-server etc/velmora/velmora-server.json usr/lib/systemd/system/velmora-server.service \
    usr/lib/sysusers.d/velmora-server.conf usr/lib/tmpfiles.d/velmora-server.conf usr/share/doc/velmora-server/README.md \
    usr/share/doc/velmora-server/examples/quickstart.json
for pair in velmora-server:velmora-server velmora-client:velmora; do
    program="${pair#*:}"
    holds "${pair%:*}" "usr/share/man/man1/$program.1.gz" "usr/share/bash-completion/completions/$program" \
        "usr/share/zsh/vendor-completions/_$program" "usr/share/fish/vendor_completions.d/$program.fish"
done
while read -r example; do
    [ -x "$tree/velmora-server/usr/share/doc/velmora-server/$example" ] || complain "/$example cannot be run as it lies there."
done < <(git ls-files -s examples | awk '$1 == 100755 { print $4 }')

libraries="$(dirname "$(find "$tree/libeventmanager1" -name 'libEventManager.so.1')")"
for file in "$tree"/*/usr/bin/* "$libraries"/*.so.*.*; do
    ! readelf -d "$file" | grep -E 'R(UN)?PATH' || complain "$file looks for libraries in a place of its own."
done
export LD_LIBRARY_PATH="$libraries"
version="$(dpkg-deb -f "$packages"/velmora-server_*.deb Version)"
[ "$("$tree/velmora-server/usr/bin/velmora-server" --version)" = "velmora-server $version" ] || complain "The server does not run."
"$tree/velmora-client/usr/bin/velmora" --help >/dev/null || complain "The client does not run."
