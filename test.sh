#!/usr/bin/env bash
# Runs all tests, from whatever state the machine is in: installs what is missing, builds, tests.
set -euo pipefail
cd "$(dirname "$0")"

scripts/install-dependencies.sh build
cmake --preset release
cmake --build --preset release
ctest --preset release
