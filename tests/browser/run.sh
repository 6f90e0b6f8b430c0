#!/usr/bin/env bash
# Tests the web console in a headless Chromium against a real server, installing what that needs. Arguments are passed on
# to "node --test". VELMORA_SERVER names another server than the release build's, CHROMIUM another browser.
#
# run.sh screenshots: makes the pictures in docs/screenshots/ anew instead.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$here/../.."

command -v "${CHROMIUM:-chromium}" >/dev/null || "$root/.ci/install-packages" browser
command -v npm >/dev/null || "$root/.ci/install-packages" node

if [ -z "${VELMORA_SERVER:-}" ]; then
    "$root/.ci/install-packages" build
    "$root/.ci/build" release velmora-server
    VELMORA_SERVER="$root/build/release/server/velmora-server"
fi
export VELMORA_SERVER

cd "$here"
if [ ! -d node_modules ] || [ package-lock.json -nt node_modules/.package-lock.json ]; then
    npm ci --no-audit --no-fund --loglevel=error
fi
if [ "${1:-}" = screenshots ]; then
    node screenshots.mjs "$root/docs/screenshots"
    exit
fi
node --test "$@" console.test.mjs
