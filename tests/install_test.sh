#!/usr/bin/env bash
# install_test.sh SOURCE BUILD COMPILER SERVER: what is installed serves other programs, through CMake and through
# pkg-config, as docs/library.md says it does; and the libraries export what their headers promise, and nothing else.
set -euo pipefail
source="$1" build="$2" compiler="$3" server="$4"
scratch="$build/install_test"
prefix="$scratch/prefix"
rm -rf "$scratch"
mkdir -p "$scratch"/{programs,headers,run}
complain() { echo "$*" && exit 1; }

cmake --install "$build" --prefix "$prefix" >/dev/null
libraries="$(dirname "$(find "$prefix" -name libEventManager.so)")"
headers="$prefix/include/EventManager"

export PKG_CONFIG_PATH="$libraries/pkgconfig"
read -r -a flags <<<"$(pkg-config --cflags --libs EventManager)"
"$compiler" "$source/tests/install/consumer.cpp" -o "$scratch/through_pkgconfig" "${flags[@]}"
LD_LIBRARY_PATH="$libraries" "$scratch/through_pkgconfig"

programs_of_the_page() {
    # The programs on the page, 1.cpp, 2.cpp …, and what they print: the text that stands behind one. And every header, to
    # see that it stands on its own, but for those that the first include of a source names: these have been compiled so.
    awk -v programs="$scratch/programs/" '/^```/ { file = "" }
        file { print > file }
        /^```cpp/ { count++; file = programs count ".cpp" }
        /^```text/ { file = programs count ".out" }' "$source/docs/library.md"
    awk 'FNR == 1 { seen = 0 } /^#include/ && !seen++ && $2 ~ /^"/ { gsub(/"/, "", $2); print $2 }' \
        "$source"/{mirel,src}/*.cpp "$source"/velmora/*/*.cpp >"$scratch/first"
    for header in "$headers"/*.h; do
        ! grep -qxF "${header##*/}" "$scratch/first" || continue
        printf '#include "%s"\n' "${header##*/}" >"$scratch/headers/${header##*/}.cpp"
    done
    cmake -S "$source/tests/install" -B "$scratch/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
        -DSOURCES="$scratch" -DCMAKE_CXX_COMPILER="$compiler" >/dev/null
    cmake --build "$scratch/consumer"
    cp -r "$source/examples/handlers" "$scratch/run"
    cd "$scratch/run"
    "$scratch/consumer/consumer"
    for program in "$scratch"/programs/*.cpp; do
        name="$(basename "$program" .cpp)"
        "$scratch/consumer/$name" >printed || complain "The $name. program of the page fails."
        [ ! -e "${program%.cpp}.out" ] || diff "${program%.cpp}.out" printed
        cat printed >>all
    done
    grep -q ' greeting ' all || complain "The handler of the page has not run."
    [ -s state.json ] || complain "The state of the page was not saved."
}
# Where only the libraries are built, since it takes as long as many other tests together.
if [ "$server" = ON ]; then
    "$prefix/bin/velmora-server" --version >/dev/null
else
    [ ! -e "$prefix/bin" ] || complain "There is more than libraries."
    programs_of_the_page
fi

# Exported names (the last part of each) that no header has.
for library in mirel velmora EventManager; do
    nm -D --defined-only -C "$libraries/lib$library.so"
done | cut -d' ' -f3- | sed -E 's/\[abi:[^]]*\]//; s/^(vtable|typeinfo|typeinfo name|(non-)?virtual thunk) (for|to) //; s/\(.*//; s/.*:://; s/^~//' |
    grep -vE '^operator' | sort -u >"$scratch/exported"
grep -ohE '\w+' "$headers"/*.h | sort -u | comm -23 "$scratch/exported" - >"$scratch/unknown"
[ ! -s "$scratch/unknown" ] || complain "Exported for nobody: $(tr '\n' ' ' <"$scratch/unknown")"
