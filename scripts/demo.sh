#!/usr/bin/env bash
# Builds the library and runs the example client.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default
./build/default/examples/pelmor_example 30 3 || echo "(example exited with $?)"
