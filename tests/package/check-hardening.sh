#!/usr/bin/env bash
# check-hardening.sh CONFIG LIBRARY PROGRAM: both are position-independent, bind all symbols at the
# start and keep the tables read-only; stacks are protected, and, unless CONFIG is Debug, memory and
# string functions are the checked ones.
set -euo pipefail
config=$1
shift

# expect WHAT PATTERN FILE OPTIONS: readelf says so of the file.
expect() {
  local what=$1 pattern=$2 file=$3
  shift 3
  grep -qE "$pattern" <<<"$(readelf --wide "$@" "$file")" || { echo "$file: no $what"; exit 1; }
}

for file in "$@"; do
  expect "position-independent code" 'Type: +DYN' "$file" --file-header
  expect "immediate binding" 'FLAGS.*NOW' "$file" --dynamic
  expect "read-only relocations" 'GNU_RELRO' "$file" --program-headers
  expect "stack protector" '__stack_chk_fail' "$file" --dyn-syms
  [ "$config" = Debug ] || expect "checked functions" '__[a-z]+_chk' "$file" --dyn-syms
done
