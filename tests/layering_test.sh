#!/usr/bin/env bash
# layering_test.sh SOURCE: includes point one way (server -> cluster -> src -> velmora -> mirel, and one way between the
# rooms inside), and what programs include of the libraries drags no heavy header in.
set -euo pipefail
cd "$1"
rooms=(mirel velmora src cluster server)
status=0
complain() { echo "$*" && status=1; }

# Every line "FILE:HEADER" of the sources under the paths.
includes() { grep -rHoP --include='*.h' --include='*.cpp' '^\s*#\s*include\s*["<]\K[^">]+' "$@" || true; }

for room in "${!rooms[@]}"; do
    [ -d "${rooms[room]}" ] || continue
    while IFS=: read -r file header; do
        for above in "${rooms[@]:room+1}"; do
            [ ! -f "$above/$header" ] || complain "$file includes $header, which is above it in $above/"
        done
    done < <(includes "${rooms[room]}")
done

# inside FOLDER ROOM:ALLOWED... : each room inside a folder includes of itself and of the allowed ones (a,b) only.
inside() {
    local folder="$1" rule room inner
    shift
    for inner in "$folder"/*/; do
        room="$(basename "$inner")"
        rule="$(printf '%s\n' "$@" | grep "^$room:" || true)"
        [ -n "$rule" ] || complain "$inner has no place in the order of the rooms"
        while IFS=: read -r file header; do
            [ "${header%%/*}" != "$header" ] && [ -f "$folder/$header" ] || continue
            [[ ",$room,${rule#*:}," == *",${header%%/*},"* ]] ||
                complain "$file includes $header, which a source in $inner does not know"
        done < <(includes "$inner")
    done
}
inside velmora plist: http: feed: python: # they meet in the public headers
inside server http: config:http service:http,config deliveries:config rest:http,config,service,deliveries

mapfile -t public < <(ls mirel/*.h && grep -oE '(velmora|src|cluster)/\w+\.h' cmake/VelmoraInstall.cmake)
private="$(grep -nE '^\s*#\s*include\s*"\w+/' "${public[@]}" || true)"
[ -z "$private" ] || complain "Public headers that include what is not installed: $private"
heavy="$(grep -nE '^\s*#\s*include\s*<((boost|curl|openssl|rapidjson|nats|sqlite3)[/.]|Python\.h)' "${public[@]}" || true)"
[ -z "$heavy" ] || complain "Public headers with what belongs behind them: $heavy"
exit "$status"
