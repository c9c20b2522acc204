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

dir=$(mktemp -d)
trap 'rm -rf "$log" "$dir"' EXIT
raw=$PWD/tests/data/raw-00000005.MF4
unfinished=$PWD/tests/data/unfinalized-00000002.MF4
decoded=$PWD/tests/data/decoded-00000005.mf4
picture=$PWD/build/demo.png
export PYTHONPATH=$PWD/python TOLVEX_LIBRARY=$PWD/build/release/lib/libtolvex.so
export PYTHONDONTWRITEBYTECODE=1 MPLBACKEND=Agg
cd "$dir"
cp "$decoded" signals.mf4
cp "$raw" logger.mf4
cp "$unfinished" unfinished.mf4

show "What a CAN logger's file holds" 'tolvex info logger.mf4 | head -n 9'
show "Its CAN frames, in the log format of can-utils" \
  'tolvex cat logger.mf4 > drive.log; wc -l < drive.log; head -n 4 drive.log'
show "The log recorded as a new measurement file" \
  'tolvex record drive.log -o drive.mf4'
show "What was recorded: start and stop time, and a group of frames per bus channel" \
  'tolvex info drive.mf4 | grep --no-group-separator -A 1 -E "^dg|start "'
show "The frames come back; those of one time on two channels may change places" \
  'tolvex cat drive.mf4 | sort | cmp - <(sort drive.log) && echo "all $(wc -l < drive.log) lines"'
show "A file that its logger never finished is read for what is there" \
  'tolvex info unfinished.mf4 | sed -n 4,9p'
show "A finished file of what is in it" \
  'tolvex recover unfinished.mf4 -o recovered.mf4 2>&1 | head -n 1; tolvex cat recovered.mf4 | wc -l'
show "A file that lost a part in its middle: what is left comes back, and what is lost is told" \
  'dd if=/dev/zero of=drive.mf4 bs=4096 seek=20 count=2 conv=notrunc status=none;
tolvex doctor drive.mf4; tolvex recover drive.mf4 -o whole.mf4 2>&1 | grep lost' || true
show "Signals in Python: a look at one, and a picture of three" '/usr/bin/python3 -c "
import tolvex, matplotlib.pyplot as plt
m = tolvex.open(\"signals.mf4\")
print(m[\"AccelerationX\"])
figure, axes = plt.subplots(3, 1, sharex=True, figsize=(9, 6), layout=\"constrained\")
for ax, name in zip(axes, (\"Speed\", \"Altitude\", \"AccelerationX\")):
    m[name].plot(ax=ax)
figure.savefig(\"demo.png\")
"' && mv demo.png "$picture" && echo "The picture: $picture"
