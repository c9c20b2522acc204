#!/usr/bin/env bash
# run-kills.sh BIN [RUNS]: kills a recording process so many times (200), each recording and moment
# anew, and recovers what it leaves. BIN is the folder of a build's programs; a run that failed is
# repeated with `tolvex_kill 1 SEED`.
set -euo pipefail
exec "$1/tolvex_kill" "${2:-200}"
