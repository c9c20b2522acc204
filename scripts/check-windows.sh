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

# The compiler's own libraries and zlib are not beside the programs.
compiler=$(x86_64-w64-mingw32-g++-posix -print-file-name=libstdc++-6.dll)
prefix=$work/tolvex
WINEPATH="Z:$(dirname "$(realpath "$compiler")");Z:/usr/x86_64-w64-mingw32/lib;Z:$prefix/bin"
export WINEPATH

wineboot --init

cmake --install build/mingw-check --prefix "$prefix" >"$work/install.log"
wine build/mingw-check/bin/tolvex_interface_tests.exe

cmake -G Ninja -S examples -B "$work/examples" -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/mingw-w64.cmake" -Dtolvex_DIR="$prefix/lib/cmake/tolvex"
cmake --build "$work/examples"

data=$PWD/tests/data
tolvex() { wine "$prefix/bin/tolvex.exe" "$@"; }
example() { wine "$work/examples/$1.exe" "${@:2}" | tr -d '\r'; }
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
"$native" export by-c.mf4 --dg 3 | grep -F '1.5,35'

# From pipe to pipe, under a name of many languages.
name='Größe 測定 журнал.mf4'
"$native" cat "$data/raw-00000005.MF4" >drive.log
"$native" record drive.log -o native.mf4 --max-data-length 64
cat drive.log | tolvex record -o "$name"
cmp native.mf4 "$name"
tolvex cat "$name" | cat | cmp - drive.log
tolvex doctor "$name"
"$native" doctor "$name"
tolvex export "$name" -o 'таблицы'
"$native" export "$name" -o tables
diff -r tables 'таблицы'

# An existing file stays unless it may be overwritten; a result takes the name of what was there.
refused --force tolvex record drive.log -o "$name"
tolvex record drive.log -o "$name" --force --max-data-length 64
cmp native.mf4 "$name"
"$native" recover "$data/unfinalized-00000170.MF4" -o native-recovered.mf4 || [ $? -eq 3 ]
tolvex recover --verify "$data/unfinalized-00000170.MF4" -o "$name" || [ $? -eq 3 ]
tolvex doctor "$name"
"$native" cat native-recovered.mf4 >expected
"$native" cat "$name" | cmp - expected
[ -z "$(find . -maxdepth 1 -name '*.part')" ]

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
refused locked.mf4 tolvex record drive.log -o locked.mf4 --force
refused 'locked by a recorder' tolvex recover "$data/unfinalized-00000170.MF4" -o locked.mf4
exec 9>&-
wait "$recorder"
[ "$("$native" cat locked.mf4)" = "$(head -n 1 drive.log)" ]

echo "Windows: all passed"
