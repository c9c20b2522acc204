#!/usr/bin/env bash
# The Python package is typed and formatted throughout, as python/pyproject.toml says.
set -euo pipefail
cd "$(dirname "$0")/../python"

/usr/bin/mypy --cache-dir ../build/mypy
/usr/bin/black --check --quiet . || {
  /usr/bin/black --diff --quiet .
  exit 1
}
