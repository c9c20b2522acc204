#!/usr/bin/env bash
# run-examples.sh SOURCE BUILD CMAKE: installs the package to a new folder, builds the examples
# against it through CMake and through pkg-config, runs them on real files and checks what they say.
# CXX and CXXFLAGS are those of the build.
set -euo pipefail
source=$1
build=$2
cmake=$3

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# expect TEXT FILE: the file has that line, or a line that begins with it.
expect() {
  if ! grep -qF -- "$1" "$2"; then
    printf 'missing: %s\nin:\n' "$1"
    head -n 20 "$2"
    exit 1
  fi
}

"$cmake" --install "$build" --prefix "$work/prefix" >"$work/install.log"
# The package serves wherever its tree lies.
mv "$work/prefix" "$work/tolvex"

# Debian-wide variables would only hide a package that cannot be found.
env -u CMAKE_PREFIX_PATH "$cmake" -G Ninja -S "$source/examples" -B "$work/build" \
  -DCMAKE_PREFIX_PATH="$work/tolvex" -DCMAKE_BUILD_TYPE=Debug >"$work/configure.log"
"$cmake" --build "$work/build" >"$work/build.log" || { cat "$work/build.log"; exit 1; }

data=$source/tests/data
"$work/build/list_file" "$data/decoded-00000005.mf4" >"$work/list"
expect 'group 6/0 "CAN2 message ID=0x7 from 0x7", 41 records' "$work/list"
expect '  Speed [m/s], ' "$work/list"

"$work/build/read_signal" "$data/decoded-00000005.mf4" Speed >"$work/signal"
expect ' 14.592 m/s' "$work/signal"
expect ' 0.178 m/s' "$work/signal"

libdir=$(dirname "$(find "$work/tolvex" -name tolvex.pc)")
export PKG_CONFIG_PATH=$libdir
read -ra cxxflags <<<"$CXXFLAGS"
read -ra package <<<"$(pkg-config --cflags --libs tolvex)"
"$CXX" -std=c++17 "${cxxflags[@]}" "$source/examples/print_frames.cpp" -o "$work/print_frames" \
  "${package[@]}" -Wl,-rpath,"$(pkg-config --variable=libdir tolvex)"
"$work/print_frames" "$data/raw-00000005.MF4" >"$work/frames"
expect ' 2345.721150 s  channel 1  00000009  9B E4 CF C0 00 FE AF 7F' "$work/frames"
expect '5477 frames' "$work/frames"

"$work/tolvex/bin/tolvex" --version >"$work/version"
expect "$(pkg-config --modversion tolvex)" "$work/version"
