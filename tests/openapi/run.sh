#!/usr/bin/env bash
# Makes a typed client from the description of the REST interface, compiles calls with it, and puts them to a real
# server; verifies the signatures of webhooks with the npm package of their standard. Installs what that needs. VELMORA_SERVER names another server than the release build's.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$here/../.."

command -v npm >/dev/null || "$root/.ci/install-packages" node

if [ -z "${VELMORA_SERVER:-}" ]; then
    "$root/.ci/install-packages" build
    "$root/.ci/build" release velmora-server
    VELMORA_SERVER="$root/build/release/server/velmora-server"
fi
export VELMORA_SERVER

# Everything that is made stays in the build directory.
work="$root/build/openapi"
mkdir -p "$work"
cp "$here"/*.json "$here"/*.yaml "$here"/*.ts "$here"/*.mjs "$work"
cd "$work"
if [ ! -d node_modules ] || ! cmp --silent package-lock.json node_modules/installed; then
    npm ci --no-audit --no-fund --loglevel=error
    cp package-lock.json node_modules/installed
fi
npx openapi-typescript "$root/server/rest/openapi.json" --redocly redocly.yaml --output api.d.ts
npx tsc --project tsconfig.json
node --test client.test.mjs webhook.test.mjs
