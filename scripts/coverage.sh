#!/usr/bin/env bash
# coverage.sh [CORPUS]: prints the line coverage of each of the library's sources by the fuzz targets
# over their corpus (a new one, or also the folder CORPUS that a long run of run-fuzz.sh left) and by
# the tests with faults: failing memory and files, changed files, killed recordings. Fails when a
# source of ten lines or more is below 60 %.
set -euo pipefail
corpus=${1:+$(realpath "$1")}
cd "$(dirname "$0")/.."
readonly least=60

scripts/install-dependencies.sh build check
cmake --preset coverage >/dev/null
targets=(fuzz/fuzz_*.cpp)
targets=("${targets[@]#fuzz/}")
cmake --build --preset coverage --target make_corpus tolvex_tests tolvex_mutate tolvex_faults \
  "${targets[@]%.cpp}"
bin=build/coverage/bin
profiles=build/coverage/profiles
rm -rf "$profiles" && mkdir "$profiles"
export LLVM_PROFILE_FILE=$PWD/$profiles/%p.profraw

"$bin/make_corpus" "$profiles/corpus" >"$profiles/log"
[ -z "$corpus" ] || cp -r "$corpus/." "$profiles/corpus"
programs=()
for target in "$bin"/fuzz_*; do
  name=$(basename "$target")
  find "$profiles/corpus/${name#fuzz_}" -type f -print0 |
    xargs -0 -n 500 "$target" -close_fd_mask=3 -timeout=60 >>"$profiles/log" 2>&1 ||
    echo "$name failed"
  programs+=(-object "$target")
done
faults='*Fault*:*Hostile*:*Killed*:*Recovery*:*Flush*:*Failing*:*Unreadable*'
"$bin/tolvex_tests" --gtest_filter="$faults" >>"$profiles/log" || echo "a test failed"
"$bin/tolvex_mutate" 5 0 samples >>"$profiles/log" || echo "tolvex_mutate failed"
"$bin/tolvex_faults" >>"$profiles/log" || echo "tolvex_faults failed"
for program in tolvex_tests tolvex_mutate tolvex_faults; do programs+=(-object "$bin/$program"); done

llvm-profdata merge -sparse "$profiles"/*.profraw -o "$profiles/all.profdata"
llvm-cov export -summary-only -instr-profile="$profiles/all.profdata" "${programs[@]:1}" \
  >"$profiles/summary.json"
python3 - "$profiles/summary.json" "$least" <<'PYTHON'
import json, os, sys

least = float(sys.argv[2])
rows = []
for file in json.load(open(sys.argv[1]))["data"][0]["files"]:
    name = os.path.relpath(file["filename"])
    lines = file["summary"]["lines"]
    if name.startswith("Mdf4/") and lines["count"]:
        rows.append((lines["percent"], lines["covered"], lines["count"], name))
for percent, covered, count, name in sorted(rows):
    print(f"{percent:6.1f} %  {covered:5} of {count:5}  {name}")
covered, count = sum(row[1] for row in rows), sum(row[2] for row in rows)
print(f"{100 * covered / count:6.1f} %  {covered:5} of {count:5}  all")
sys.exit(any(row[0] < least and row[2] >= 10 for row in rows))
PYTHON
