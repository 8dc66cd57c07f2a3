#!/usr/bin/env bash
# Starts under load: 200 single-attempt starts per rate on the virtual board's
# realistic profile while two busy processes compete for the two cores; prints
# how many succeeded and why the others failed.
#
#   scripts/starts.sh [pelmor_start_under_load options, e.g. --starts=50 --hogs=0]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset bench >/dev/null
cmake --build --preset bench --parallel "${PELMOR_BENCH_JOBS:-2}" --target pelmor pelmor_vboard pelmor_start_under_load
mkdir -p build/bench/results
build/bench/bench/pelmor_start_under_load "$@" 2>build/bench/results/starts.log
