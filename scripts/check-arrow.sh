#!/usr/bin/env bash
# check-arrow.sh BUILD: DuckDB scans the streams of Arrow arrays that the library gives, and what it
# finds there is compared with the library's columns. Fetches it with npm into the build folder.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
package=@duckdb/node-bindings-linux-x64

if [ "$(uname -sm)" != "Linux x86_64" ]; then
  echo "check-arrow.sh: there is no package of the engine for this system"
  exit 0
fi
scripts/install-dependencies.sh build arrow
engine=$build/duckdb
library=$engine/node_modules/$package/libduckdb.so
[ -f "$library" ] || npm install --prefix "$engine" --ignore-scripts --no-audit --no-fund \
  --no-package-lock --no-save "$package@1.5.6-r.1"
cmake --build "$build" --target tolvex_arrow_scan
"$build/bin/tolvex_arrow_scan" "$library" tests/data/*.mf4 tests/data/*.MF4
