#!/usr/bin/env bash
# check-32-bits.sh: library and program compile for 32 bits without warnings, clang's about
# conversions included.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh build check 32-bits
find Mdf4 tools -name '*.cpp' ! -name SystemWindows.cpp -print0 |
  xargs -0 -P "$(nproc)" -n 8 clang++ -m32 -D_FILE_OFFSET_BITS=64 -std=c++20 -fsyntax-only \
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -Iinclude -I. -Itools/tolvex
