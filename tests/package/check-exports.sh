#!/usr/bin/env bash
# check-exports.sh LIBRARY HEADERS: the shared library exports the interface that the headers
# declare (member functions of the exported classes, free and plain functions) and nothing beside it.
set -euo pipefail
library=$1
headers=$2

classes=$(sed -nE 's/^ *(class|struct) TOLVEX_EXPORT ([A-Za-z0-9_]+).*/\2/p' "$headers"/*.h | paste -sd '|')
functions=$(grep -hv '^#' "$headers"/*.h | tr '\n' ' ' |
  grep -oE 'TOLVEX_API [^(;]*\(' | sed -E 's/.*[ *]([A-Za-z0-9_]+)\($/\1/')

exported=$(nm -DC --defined-only "$library" |
  sed -E 's/^[0-9a-f]* +[A-Za-z] //; s/\[abi:cxx11\]//' | sort -u)
free=$(sed -nE 's/^(\[\[nodiscard\]\] )?TOLVEX_EXPORT [A-Za-z:<>]+ ([a-z][A-Za-z]+)\(.*/\2/p' "$headers"/*.h | paste -sd '|')
interface="tolvex::($free)\(.*|(typeinfo|typeinfo name|vtable) for tolvex::($classes)|tolvex::(($classes)::)+[^:(]+(\(.*)?"
foreign=$(grep -vxE "$interface" <<<"$exported" | grep -vxFf <(echo "$functions") || true)
absent=$(grep -vxFf <(echo "$exported") <<<"$functions" || true)

echo "$(wc -l <<<"$exported") symbols exported by $(basename "$library")"
if [ -n "$foreign$absent" ]; then
  printf 'exported, not part of the interface:\n%s\n' "$foreign"
  printf 'declared, not exported:\n%s\n' "$absent"
  exit 1
fi
