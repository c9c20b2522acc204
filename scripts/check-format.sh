#!/usr/bin/env bash
# Every source of the project is formatted as .clang-format says.
set -euo pipefail
cd "$(dirname "$0")/.."

find include Mdf4 tools tests bench fuzz examples -name '*.h' -o -name '*.c' -o -name '*.cpp' |
  sort | xargs clang-format --dry-run -Werror
