#!/usr/bin/env bash
# run-examples.sh SOURCE BUILD CMAKE: installs the package to a new folder, builds the examples
# against it through CMake and through pkg-config, runs them and checks what they say and record.
# CC, CFLAGS, CXX and CXXFLAGS are those of the build.
set -euo pipefail
source=$1
build=$2
cmake=$3
export CC=${CC:-cc} CFLAGS=${CFLAGS:-} LDFLAGS=

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

# same FILE: it holds the lines of the standard input and no others.
same() {
  diff - "$1" || { echo "in $(basename "$1")"; exit 1; }
}

# The runtime of the address sanitizer as a shared library; nothing for builds without it. A program
# that is not C++ must have it in front of the library, which was built with the sanitizer.
sanitizer_runtime() {
  local name path
  [[ $CXXFLAGS = *-fsanitize=*address* ]] || return 0
  for name in libclang_rt.asan-"$(uname -m)".so libclang_rt.asan.so libasan.so; do
    path=$("$CXX" -print-file-name="$name")
    if [ -f "$path" ]; then
      echo "$path"
      return
    fi
  done
}
runtime=$(sanitizer_runtime)
if [[ $runtime = *libclang_rt* ]]; then
  LDFLAGS="-shared-libsan -Wl,-rpath,$(dirname "$runtime")"
fi

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

"$work/build/read_columns" "$data/decoded-00000005.mf4" >"$work/columns"
expect 'group 6 "CAN2 message ID=0x7 from 0x7", 41 rows' "$work/columns"
expect '  Speed [m/s] ' "$work/columns"
"$work/build/read_columns" "$data/decoded-00000005.mf4" Speed >"$work/column"
diff "$work/signal" "$work/column"
expect ' 14.592 m/s' "$work/column"

libdir=$(dirname "$(find "$work/tolvex" -name tolvex.pc)")
export PKG_CONFIG_PATH=$libdir
libdir=$(pkg-config --variable=libdir tolvex)
read -ra cflags <<<"$CFLAGS $LDFLAGS"
read -ra cxxflags <<<"$CXXFLAGS"
read -ra package <<<"$(pkg-config --cflags --libs tolvex) -Wl,-rpath,$libdir"
"$CXX" -std=c++17 "${cxxflags[@]}" "$source/examples/print_frames.cpp" -o "$work/print_frames" \
  "${package[@]}"
"$work/print_frames" "$data/raw-00000005.MF4" >"$work/frames"
expect ' 2345.721150 s  channel 1  00000009  9B E4 CF C0 00 FE AF 7F' "$work/frames"
expect '5477 frames' "$work/frames"

tolvex=$work/tolvex/bin/tolvex
"$tolvex" --version >"$work/version"
expect "$(pkg-config --modversion tolvex)" "$work/version"

# check_recording FILE: what record_signals records, as the program reads it.
check_recording() {
  "$tolvex" info "$1" >"$work/info"
  expect '  start    2023-11-14T22:13:20Z' "$work/info"
  expect '  groups   6' "$work/info"
  expect 'dg 2 cg 0  engine' "$work/info"
  expect 'dg 3 cg 0  tank' "$work/info"
  "$tolvex" cat "$1" >"$work/cat"
  same "$work/cat" <<'END'
(1700000000.250000) can0 123#010203
(1700000000.500000) can0 20000123#010203
(1700000000.750000) can0 01ABCDEF##10102030405060708090A0B0C
END
  "$tolvex" export "$1" --dg 2 >"$work/engine"
  same "$work/engine" <<'END'
time [s],speed [rpm],gear
0,800,neutral
0.5,800.25,first
1,800.5,unknown
END
  "$tolvex" export "$1" --dg 3 >"$work/tank"
  same "$work/tank" <<'END'
time [s],level [l]
0.5,15
1,30
1.5,35
END
}

# The payload of a frame handle is not freed with it, which a sanitizer would take for a leak.
export ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0

# refused COMMAND...: given a path where no file can be, it ends with 1 and names the path.
refused() {
  local status=0
  "$@" "$work/no/such/folder.mf4" 2>"$work/refused" || status=$?
  [ "$status" -eq 1 ] || { echo "exit code $status of $1 with a wrong path"; exit 1; }
  expect "$work/no/such/folder.mf4" "$work/refused"
}

"$work/build/record_signals" "$work/by-c.mf4"
check_recording "$work/by-c.mf4"
refused "$work/build/record_signals"
refused "$work/build/read_columns"
"$work/build/read_columns" "$work/by-c.mf4" gear >"$work/gears"
same "$work/gears" <<'END'
0 neutral
0.5 first
1 unknown
END
"$CC" -std=c11 "${cflags[@]}" "$source/examples/record_signals.c" -o "$work/record_signals" \
  "${package[@]}"
"$work/record_signals" "$work/by-pkg-config.mf4"
check_recording "$work/by-pkg-config.mf4"

if [[ $CXXFLAGS = *-fsanitize=* && -z $runtime ]]; then
  echo "record_signals.py is not run: the sanitizer's runtime cannot be loaded into Python"
  exit 0
fi
record_by_python() {
  env ${runtime:+LD_PRELOAD="$runtime"} python3 "$source/examples/record_signals.py" "$1" \
    "$libdir/libtolvex.so"
}
record_by_python "$work/by-python.mf4"
check_recording "$work/by-python.mf4"
refused record_by_python
