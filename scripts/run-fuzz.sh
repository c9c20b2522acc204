#!/usr/bin/env bash
# run-fuzz.sh BIN SECONDS: writes the corpus and runs every fuzz target in the folder BIN for that
# long, as many at a time as there are cores. Inputs that made one fail, and logs, stay in
# BIN/findings.
set -euo pipefail
bin=$(realpath "$1")
seconds=$2
cd "$(dirname "$0")/.."

corpus=$(mktemp -d)
trap 'rm -rf "$corpus"' EXIT
"$bin/make_corpus" "$corpus"
mkdir -p "$bin/findings"

# Runs one target over its part of the corpus; shows its log only when it fails.
fuzz() {
  local target=$1 bin=$2 corpus=$3/${1#fuzz_} seconds=$4
  local log=$bin/findings/$target.log
  # An input is at most 16 KiB, so more memory than this is out of proportion.
  if "$bin/$target" -max_total_time="$seconds" -max_len=16384 -timeout=5 -rss_limit_mb=512 \
    -malloc_limit_mb=256 -dict=fuzz/dictionary -artifact_prefix="$bin/findings/$target-" \
    "$corpus" >"$log" 2>&1; then
    echo "$target: $(tail -n 1 "$log")"
  else
    tail -n 60 "$log"
    echo "$target: failed"
    return 1
  fi
}
export -f fuzz

find "$bin" -maxdepth 1 -type f -name 'fuzz_*' -printf '%f\0' | sort -z |
  xargs -0 -P "$(nproc)" -I{} bash -c 'fuzz "$@"' fuzz {} "$bin" "$corpus" "$seconds"
