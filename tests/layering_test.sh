#!/usr/bin/env bash
# layering_test.sh SOURCE: includes point one way (server -> cluster -> src -> velmora -> mirel), and what programs include of the
# libraries drags no heavy header in.
set -euo pipefail
cd "$1"
rooms=(mirel velmora src cluster server)
status=0
complain() { echo "$*" && status=1; }

for room in "${!rooms[@]}"; do
    while IFS=: read -r file header; do
        for above in "${rooms[@]:room+1}"; do
            [ ! -e "$above/$header" ] || complain "$file includes $header, which is above it in $above/"
        done
    done < <(grep -rHoP --include='*.h' --include='*.cpp' '^\s*#\s*include\s*["<]\K[^">]+' "${rooms[room]}")
done
mapfile -t public < <(ls mirel/*.h && grep -oE '(velmora|src)/\w+\.h' cmake/VelmoraInstall.cmake)
heavy="$(grep -nE '^\s*#\s*include\s*<((boost|curl|openssl|rapidjson)/|Python\.h)' "${public[@]}" || true)"
[ -z "$heavy" ] || complain "Public headers with what belongs behind them: $heavy"
exit "$status"
