#!/usr/bin/env bash
# run-embedded.sh SOURCE [build]: makes the library a part of another build, in each way that there
# is, and looks at what becomes of both. With "build", also builds the static library, which takes a
# minute, and uses it from there and from where it was installed, through CMake and pkg-config.
set -euo pipefail
source=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# logged COMMAND...: runs it, and shows what it said only if it fails.
logged() {
  "$@" >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
}

# configure WAY TYPE OPTIONS...: into a folder named after the way.
configure() {
  logged cmake -G Ninja -S "$source/tests/package/embedded" -B "$work/$1" -DHOW="$1" \
    -DTOLVEX_SOURCE="$source" -DEXPECTED_TYPE="$2" "${@:3}"
}

configure FetchContent SHARED_LIBRARY -DBUILD_SHARED_LIBS=ON
configure add_subdirectory STATIC_LIBRARY -DTOLVEX_INSTALL=ON -DCMAKE_INSTALL_PREFIX="$work/tolvex"
[ "${2:-}" = build ] || exit 0

# use FOLDER: the programs there run.
use() {
  "$1/list_file" "$source/tests/data/decoded-00000005.mf4" | grep -q 'Speed \[m/s\]'
  "$1/record_signals" "$work/recorded.mf4"
}

logged cmake --build "$work/add_subdirectory"
use "$work/add_subdirectory/programs"
if nm -DC --defined-only "$work/add_subdirectory/libwrapper.so" | grep -i tolvex; then
  echo "is exported by the shared library that the static one is a part of"
  exit 1
fi

logged cmake --install "$work/add_subdirectory"
logged env -u CMAKE_PREFIX_PATH cmake -G Ninja -S "$source/examples" -B "$work/examples" \
  -DCMAKE_PREFIX_PATH="$work/tolvex"
logged cmake --build "$work/examples"
use "$work/examples"

mkdir "$work/by-pkg-config"
PKG_CONFIG_PATH=$(dirname "$(find "$work/tolvex" -name tolvex.pc)")
export PKG_CONFIG_PATH
read -ra package <<<"$(pkg-config --static --cflags --libs tolvex)"
logged "${CXX:-c++}" -std=c++17 "$source/examples/list_file.cpp" -o "$work/by-pkg-config/list_file" \
  "${package[@]}"
logged "${CC:-cc}" -std=c11 "$source/examples/record_signals.c" \
  -o "$work/by-pkg-config/record_signals" "${package[@]}"
use "$work/by-pkg-config"
