#!/usr/bin/env bash
# install_test.sh SOURCE BUILD COMPILER: what is installed serves another program, through CMake and through
# pkg-config, and the libraries export nothing of what they are made with.
set -euo pipefail
source="$1" build="$2" compiler="$3"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
prefix="$scratch/prefix"

cmake --install "$build" --prefix "$prefix" >/dev/null
libraries="$(dirname "$(find "$prefix" -name libEventManager.so)")"

cmake -S "$source/tests/install" -B "$scratch/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$compiler" >/dev/null
cmake --build "$scratch/consumer"
"$scratch/consumer/consumer"

export PKG_CONFIG_PATH="$libraries/pkgconfig"
read -r -a flags <<<"$(pkg-config --cflags --libs EventManager)"
"$compiler" "$source/tests/install/consumer.cpp" -o "$scratch/through_pkgconfig" "${flags[@]}"
LD_LIBRARY_PATH="$libraries" "$scratch/through_pkgconfig"

# Every installed header stands on its own.
for header in "$prefix"/include/EventManager/*.h; do
    "$compiler" -fsyntax-only "${flags[@]}" -include "$header" -x c++ /dev/null
done

"$prefix/bin/velmora-server" --version >/dev/null

for library in mirel velmora EventManager; do
    foreign="$(nm -D --defined-only -C "$libraries/lib$library.so" | grep -E 'rapidjson|boost|asio|CLI::' || true)"
    [ -z "$foreign" ] || { echo "lib$library.so exports: $foreign" && exit 1; }
done
