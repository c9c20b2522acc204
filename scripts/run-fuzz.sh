#!/usr/bin/env bash
# run-fuzz.sh BIN TIME [TARGET...]: runs the fuzz targets in the folder BIN, or those named
# (fuzz_open), as many at a time as JOBS says, by default as there are cores.
#
# TIME in seconds (20): each target runs for so long, over a new corpus.
# TIME in minutes or hours (30m, 8h): the targets take turns until it is over. Their corpora stay in
# BIN/corpus and their executions are counted in BIN/executions, so that the next run goes on where
# this one ended.
#
# Inputs that made a target fail, and logs, stay in BIN/findings.
set -euo pipefail
bin=$(realpath "$1")
time=$2
shift 2
cd "$(dirname "$0")/.."

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  mapfile -t targets < <(find "$bin" -maxdepth 1 -type f -name 'fuzz_*' -printf '%f\n' | sort)
fi
jobs=${JOBS:-$(nproc)}
temporary=$(mktemp -d)
trap 'rm -rf "$temporary"' EXIT
mkdir -p "$bin/findings"
"$bin/make_corpus" "$temporary/seeds" >"$temporary/log"

# fuzz TARGET BIN CORPUS SECONDS COUNTS: runs one target over its part of the corpus and appends its
# executions to the file COUNTS. Shows its log only when it fails.
fuzz() {
  local target=$1 bin=$2 corpus=$3/${1#fuzz_} seconds=$4 counts=$5
  local log=$bin/findings/$target.log failed=0 options=(-max_len=1048576)
  case $target in # what longer inputs hold, short ones do as well
    fuzz_conversion | fuzz_handles | fuzz_candump) options=(-max_len=512) ;;
    fuzz_async | fuzz_record | fuzz_lines) options=(-max_len=16384) ;;
  esac
  mkdir -p "$corpus"
  # An input is at most 1 MiB, so more memory than this is out of proportion.
  "$bin/$target" -max_total_time="$seconds" "${options[@]}" -timeout=20 -rss_limit_mb=1024 \
    -malloc_limit_mb=256 -entropic=0 -close_fd_mask=3 -print_final_stats=1 \
    -dict=fuzz/dictionary -artifact_prefix="$bin/findings/$target-" \
    "$corpus" >"$log" 2>&1 || failed=1
  local executions
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  echo "$target ${executions:-0}" >>"$counts"
  [ "$failed" -eq 0 ] || tail -n 60 "$log"
  echo "$target: ${executions:-0} executions$([ "$failed" -eq 0 ] || echo ', failed')"
  return "$failed"
}
export -f fuzz

# take_turns CORPUS SECONDS COUNTS: runs each target once.
take_turns() {
  printf '%s\0' "${targets[@]}" |
    xargs -0 -P "$jobs" -I{} bash -c 'fuzz "$@"' fuzz {} "$bin" "$1" "$2" "$3"
}

# merge TARGET: leaves of a corpus what covers all that it covers.
merge() {
  local corpus=$bin/corpus/${1#fuzz_}
  rm -rf "$temporary/merged" && mkdir "$temporary/merged"
  "$bin/$1" -merge=1 -max_len=1048576 -timeout=20 -rss_limit_mb=1024 -close_fd_mask=3 \
    "$temporary/merged" "$corpus" >"$bin/findings/$1.merge.log" 2>&1 || return 0
  rm -rf "$corpus" && mv "$temporary/merged" "$corpus"
}

case $time in
  *h) seconds=$((${time%h} * 3600)) ;;
  *m) seconds=$((${time%m} * 60)) ;;
  *)
    take_turns "$temporary/seeds" "${time%s}" "$temporary/executions"
    exit
    ;;
esac

mkdir -p "$bin/corpus"
cp -r "$temporary/seeds/." "$bin/corpus"
for target in "${targets[@]}"; do merge "$target"; done
failed=0
end=$((SECONDS + seconds))
rounds=$(((${#targets[@]} + jobs - 1) / jobs)) # to give each target a turn
while [ $SECONDS -lt $end ]; do
  turn=$(((end - SECONDS) / rounds + 1))
  take_turns "$bin/corpus" $((turn < 120 ? turn : 120)) "$bin/executions" || failed=1
done
echo "Executions of this and all earlier runs:"
awk '{ count[$1] += $2; all += $2 }
  END { for (target in count) print target ": " count[target]; print "in all: " all }' \
  "$bin/executions" | sort
exit "$failed"
