#!/usr/bin/env bash
# Builds everything with the given preset (default: "default"; "aarch64" cross-builds
# for 64-bit ARM and runs the tests under qemu-user) and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-default}
if [ "$preset" = aarch64 ]; then
  # The cross compiler, qemu-user to run what it builds, and the target's GoogleTest.
  bash scripts/install-deps.sh g++-aarch64-linux-gnu qemu-user-static libgtest-dev:arm64 libgmock-dev:arm64
else
  bash scripts/install-deps.sh
fi
cmake --preset "$preset"
cmake --build --preset "$preset"
ctest --preset "$preset" -j2
