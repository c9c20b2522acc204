#!/usr/bin/env bash
# Measures: builds the benches and runs them all, one table, in about three minutes. Arguments go to
# the benches, for example ./bench.sh --benchmark_filter=saveCanMessage. The largest recording takes
# 1.2 GB of the temporary folder (TMPDIR).
set -euo pipefail
cd "$(dirname "$0")"

{
  scripts/install-dependencies.sh build bench
  cmake --preset bench
  cmake --build --preset bench
} >&2
exec build/bench/bin/tolvex_bench "$@"
