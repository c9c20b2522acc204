#!/usr/bin/env bash
# The main job on real data: what a CAN logger recorded, as groups, frames and signals.
set -euo pipefail
cd "$(dirname "$0")"

log=$(mktemp)
trap 'rm -f "$log"' EXIT
echo "Building tolvex (a few minutes the first time) ..."
build() {
  scripts/install-dependencies.sh build &&
    cmake --preset release &&
    cmake --build --preset release --target tolvex_program
}
build >"$log" 2>&1 || {
  cat "$log" >&2
  exit 1
}

PATH=$PWD/build/release/bin:$PATH

# Prints a heading and the command, then runs it.
show() {
  printf '\n=== %s\n$ %s\n' "$1" "$2"
  eval "$2" 2>&1
}

show "What the logger's file holds" 'tolvex info tests/data/raw-00000005.MF4'
show "Its first CAN frames, in the log format of can-utils" \
  'tolvex cat tests/data/raw-00000005.MF4 | head -n 10'
show "The same drive as signals, here the speed over ground" \
  'tolvex export tests/data/decoded-00000005.mf4 --dg 6 | head -n 6'
show "A file that its logger never finished is refused, and the error says why" \
  'tolvex info tests/data/unfinalized-00000002.MF4' || echo "exit code $?"
