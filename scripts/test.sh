#!/usr/bin/env bash
# Builds everything with the given preset (default: "default") and runs the whole
# test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-default}
bash scripts/install-deps.sh
cmake --preset "$preset"
cmake --build --preset "$preset"
ctest --preset "$preset" -j2
