#!/usr/bin/env bash
# build-wheel.sh [linux|windows] [OUT_DIR]: builds the wheel of the Python package for this machine's
# kind of Linux (the default) or, with MinGW-w64, for 64-bit Windows, and prints its path last. It is
# laid into OUT_DIR, build/wheels by default. TOLVEX_BUILD_DIR names another build folder than the
# script's, PYTHON another Python.
set -euo pipefail
system=${1:-linux}
out=$(realpath -m "${2:-"$(dirname "$0")/../build/wheels"}")
cd "$(dirname "$0")/.."

case $system in
  linux) ;;
  windows)
    export CMAKE_TOOLCHAIN_FILE=$PWD/cmake/mingw-w64.cmake _PYTHON_HOST_PLATFORM=win-amd64
    ;;
  *)
    echo "build-wheel.sh: no wheels for '$system'" >&2
    exit 2
    ;;
esac
export TOLVEX_BUILD_DIR=${TOLVEX_BUILD_DIR:-$PWD/build/wheel-$system}

mkdir -p "$out"
cd python
"${PYTHON:-python3}" -B - "$out" <<'PYTHON'
import os, sys

sys.path.insert(0, "")
import build_backend

print(os.path.join(sys.argv[1], build_backend.build_wheel(sys.argv[1])))
PYTHON
