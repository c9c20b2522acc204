#!/usr/bin/env bash
# mutate.sh BIN [RUNS]: changes the real files and samples of every kind in every way that
# tolvex_mutate knows, which takes hours, then runs the program itself on so many files (200) with a
# few bytes changed or cut off. BIN is the folder of a build's programs.
set -euo pipefail
bin=$(realpath "$1")
runs=${2:-200}
cd "$(dirname "$0")/.."

dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
files=(tests/data/*.[mM]*4)
failed=0

printf '%s\0' "${files[@]}" samples recording |
  xargs -0 -P "$(nproc)" -I{} "$bin/tolvex_mutate" 0 1 {} || failed=1

RANDOM=1

# Runs the program with what a user gives it, within 5 seconds and 256 MiB beside the program itself.
try() {
  local code=0
  (ulimit -v $((320 * 1024)) && timeout 5 "$bin/tolvex" "$@" >"$dir/out" 2>"$dir/err") || code=$?
  [ "$code" -le 3 ] && return
  echo "exit code $code: tolvex $*, of run $run"
  failed=1
}

for ((run = 1; run <= runs; ++run)); do
  file=${files[run % ${#files[@]}]}
  cp "$file" "$dir/in.mf4"
  size=$(stat -c %s "$file")
  for ((i = RANDOM % 4; i >= 0; --i)); do
    # Where blocks lie close together, more often than not.
    at=$(((RANDOM * 32768 + RANDOM) % (RANDOM % 3 ? 16384 : size)))
    printf "\\x$(printf %x $((RANDOM % 256)))" |
      dd of="$dir/in.mf4" bs=1 seek="$at" conv=notrunc status=none
  done
  ((run % 5)) || truncate -s $(((RANDOM * 32768 + RANDOM) % size)) "$dir/in.mf4"
  try info "$dir/in.mf4"
  try cat "$dir/in.mf4"
  rm -rf "$dir/csv" && mkdir "$dir/csv"
  try export "$dir/in.mf4" -o "$dir/csv"
  try doctor "$dir/in.mf4"
  rm -f "$dir/recovered.mf4"
  try recover "$dir/in.mf4" -o "$dir/recovered.mf4"
  [ ! -e "$dir/recovered.mf4" ] || "$bin/tolvex" doctor "$dir/recovered.mf4" 2>"$dir/err" || {
    echo "what comes back of run $run is not sound: $(head -n 1 "$dir/err")"
    failed=1
  }
done
[ "$failed" -eq 0 ] && echo "nothing failed"
exit "$failed"
