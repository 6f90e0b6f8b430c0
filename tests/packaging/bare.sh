#!/usr/bin/env bash
# bare.sh: makes build/bare.tar, a bare Debian 12, where it is not there yet. Wants root and debootstrap; MIRROR may name
# Debian's mirror.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
[ ! -e build/bare.tar ] || exit 0
root="$(mktemp -d)"
trap 'rm -rf "$root"' EXIT
chmod 755 "$root" # others than root live in it too
mkdir -p build
debootstrap --variant=minbase bookworm "$root" ${MIRROR:+"$MIRROR"} >build/debootstrap.log
tar -C "$root" --one-file-system -cf build/bare.tar.part .
mv build/bare.tar.part build/bare.tar
