#!/usr/bin/env bash
# Measures: builds the benches and runs them all, one table, in about three minutes. Arguments go to
# the benches, for example ./bench.sh --benchmark_filter=saveCanMessage. The largest recording takes
# 1.2 GB of the temporary folder (TMPDIR). ./bench.sh python [ROW ...] measures the Python package
# beside the C++ interface instead, in about two minutes.
set -euo pipefail
cd "$(dirname "$0")"

{
  scripts/install-dependencies.sh build bench
  cmake --preset bench
  cmake --build --preset bench
} >&2
if [ "${1:-}" = python ]; then
  export PYTHONPATH=$PWD/python TOLVEX_LIBRARY=$PWD/build/bench/lib/libtolvex.so
  exec /usr/bin/python3 -B bench/python/bench.py build/bench/bin/tolvex_python_peer "${@:2}"
fi
exec build/bench/bin/tolvex_bench "$@"
