#!/usr/bin/env bash
# Soak run on the virtual board: the driver under a random mix of the board's
# faults, restarted whenever its worker ends, with every invariant checked.
#
#   scripts/soak.sh [pelmor-soak options]     e.g. --seconds=1800, --hogs=2, --cycles=1000
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target pelmor-soak
build/default/tools/pelmor-soak "$@" 2>build/default/soak.log || { tail -n 40 build/default/soak.log; exit 1; }
