#!/usr/bin/env bash
# check-windows.sh [TOLVEX]: builds everything for Windows and runs it under Wine: the interface
# tests, the examples, and the program, which must record what the Linux program TOLVEX records.
set -euo pipefail
cd "$(dirname "$0")/.."
native=$(realpath "${1:-build/release/bin/tolvex}")

scripts/install-dependencies.sh build windows
# Not optimized, as that would take most of the time.
cmake --preset mingw -B build/mingw-check -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_FLAGS_DEBUG= -DCMAKE_CXX_FLAGS_DEBUG=
cmake --build build/mingw-check

work=$(mktemp -d)
export WINEPREFIX=$work/wine WINEDEBUG=-all WINEDLLOVERRIDES=mscoree,mshtml= LC_ALL=C.UTF-8
finish() {
  local status=$?
  wineserver -k || true
  rm -rf "$work"
  [ "$status" -eq 0 ] || echo "check-windows.sh failed"
  exit "$status"
}
trap finish EXIT

wineboot --init

# The installed folder has all that the programs need.
prefix=$work/tolvex
cmake --install build/mingw-check --prefix "$prefix" >"$work/install.log"
cp build/mingw-check/bin/tolvex_interface_tests.exe "$prefix/bin"
wine "$prefix/bin/tolvex_interface_tests.exe"

cmake -G Ninja -S examples -B "$work/examples" -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/mingw-w64.cmake" -Dtolvex_DIR="$prefix/lib/cmake/tolvex"
cmake --build "$work/examples"
cp "$work"/examples/*.exe "$prefix/bin"

# The library of the wheel needs none beside it.
TOLVEX_BUILD_DIR=$PWD/build/mingw-check scripts/build-wheel.sh windows "$work"
python3 -m zipfile -e "$work"/tolvex-*-py3-none-win_amd64.whl "$work/wheel"
packed=$work/wheel/tolvex
x86_64-w64-mingw32-gcc-posix -std=c11 -Iinclude examples/read_columns.c "$packed/libtolvex.dll" \
  -o "$packed/read_columns.exe"

data=$PWD/tests/data
tolvex() { wine "$prefix/bin/tolvex.exe" "$@"; }
example() { wine "$prefix/bin/$1.exe" "${@:2}" | tr -d '\r'; }
# refused TEXT COMMAND...: it fails, and says the text.
refused() {
  if "${@:2}" 2>message; then
    echo "not refused: ${*:2}"
    exit 1
  fi
  grep -F -- "$1" message
}
cd "$work"

example list_file "$data/decoded-00000005.mf4" | grep -F 'group 6/0 "CAN2 message ID=0x7 from 0x7"'
example read_signal "$data/decoded-00000005.mf4" Speed | grep -F ' 14.592 m/s'
example print_frames "$data/raw-00000005.MF4" | grep -F '5477 frames'
example record_signals by-c.mf4
example read_columns by-c.mf4 gear | grep -F '0.5 first'
wine "$packed/read_columns.exe" by-c.mf4 gear | tr -d '\r' | grep -F '0.5 first'
"$native" export by-c.mf4 --dg 3 | grep -F '1.5,35'

# From pipe to pipe, under a name of many languages.
name='Größe 測定 журнал.mf4'
"$native" cat "$data/raw-00000005.MF4" >drive.log
"$native" record drive.log -o native.mf4 --max-data-length 64
cat drive.log | tolvex record -o "$name"
cmp native.mf4 "$name"
# Buses get groups of their own, by which frames of equal time are ordered.
tolvex cat "$name" | sort | cmp - <(sort drive.log)
tolvex doctor "$name"
"$native" doctor "$name"
tolvex export "$name" -o 'таблицы'
"$native" export "$name" -o tables
diff -r tables 'таблицы'
tolvex cat "$name" | head -n 1 | cmp - <(head -n 1 drive.log)

# In folders whose names are longer than those that Windows takes as they are.
deep=$(printf 'x%.0s' {1..150})
deep=$deep/$deep
tolvex export "$name" -o "$deep"
diff -r tables "$deep"
tolvex record drive.log -o "$deep/drive.mf4" --max-data-length 64
cmp native.mf4 "$deep/drive.mf4"
touch "$deep/next_1.mf4"
refused next_1.mf4 tolvex record drive.log -o "$deep/next.mf4" --split-size 1M

# An existing file stays unless it may be overwritten; a result takes the name of what was there.
refused --force tolvex record drive.log -o "$name"
tolvex record drive.log -o "$name" --force --max-data-length 64
cmp native.mf4 "$name"
"$native" recover "$data/unfinalized-00000170.MF4" -o native-recovered.mf4 || [ $? -eq 3 ]
tolvex recover --verify "$data/unfinalized-00000170.MF4" -o "$deep/$name" || [ $? -eq 3 ]
refused --force tolvex recover "$data/unfinalized-00000170.MF4" -o "$deep/$name"
mv "$deep/$name" "$name"
tolvex doctor "$name"
"$native" cat native-recovered.mf4 >expected
"$native" cat "$name" | cmp - expected

# Ctrl-C leaves nothing of a result, and a recording that is whole.
for _ in {1..60}; do cat drive.log; done >long.log
"$native" record long.log -o long.mf4
# stopped CODE PATTERN ARGUMENT...: is stopped once it has written to a file of this name, and ends
# with the code.
stopped() {
  wine "$prefix/bin/tolvex.exe" "${@:3}" &
  local program=$! files=() status=0
  until [ -s "${files[0]-}" ]; do
    kill -0 "$program"
    mapfile -t files < <(compgen -G "$2")
  done
  kill -INT "$program"
  wait "$program" || status=$?
  [ "$status" -eq "$1" ]
}
stopped 58 'tolvex-*.part' recover long.mf4 -o stopped.mf4
stopped 58 'stopped/tolvex-*.part' export long.mf4 -o stopped
[ -z "$(find . -name '*.part' -o -path './stopped*' -type f)" ]
stopped 0 stopped.mf4 record long.log -o stopped.mf4 --max-data-length 64
tolvex doctor stopped.mf4
[ "$(tolvex cat stopped.mf4 | wc -l)" -lt "$(wc -l <long.log)" ]

# What is being recorded is locked.
mkfifo live
tolvex record -o locked.mf4 <live &
recorder=$!
exec 9>live
head -n 1 drive.log >&9
until [ -s locked.mf4 ]; do
  kill -0 "$recorder"
  sleep 0.1
done
refused 'locked by another recorder' tolvex record drive.log -o locked.mf4 --force
refused 'locked by a recorder' tolvex recover --force "$data/unfinalized-00000170.MF4" -o locked.mf4
exec 9>&-
wait "$recorder"
[ "$("$native" cat locked.mf4)" = "$(head -n 1 drive.log)" ]

echo "Windows: all passed"
