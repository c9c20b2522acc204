#!/usr/bin/env bash
# check-tidy.sh [SOURCE...]: clang-tidy over the given sources, or over all of the project.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -eq 0 ]; then
  mapfile -t sources < <(find Mdf4 tools tests bench fuzz examples -name '*.cpp' \
    ! -name '*Windows.cpp' | sort)
  set -- "${sources[@]}"
fi
flags=(-std=c++20 -Iinclude -I.
  -DTOLVEX_TEST_DATA='""' -DTOLVEX_PROGRAM='""'
  -DTOLVEX_FAILING_READS_MODULE='""' -DTOLVEX_BUILD_TYPE='""')

check() { clang-tidy --quiet "$1" -- "${@:2}" 2> >(grep -v 'warnings\? generated' >&2); }
export -f check
printf '%s\0' "$@" |
  xargs -0 -P "$(nproc)" -I{} bash -c 'check "$@"' check {} "${flags[@]}"
echo "clang-tidy: $# sources are clean"
