#!/usr/bin/env bash
# The main job: with no board at hand, stream 10 s of 30 Hz samples from the
# driver on the virtual board (realistic timing), record them as CSV together
# with the board's ground truth, and show how good the timestamps are.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh python3-matplotlib
cmake --preset default >/dev/null
cmake --build --preset default --target pelmor-stream pelmor_vboard

out=build/demo
mkdir -p "$out"
echo
echo "== pelmor-stream on the virtual board (realistic profile): 30 Hz for 10 s -> $out/samples.csv"
tools/pelmor-vboard --board build/default/vboard/libpelmor_vboard.so.1 --profile realistic \
  --truth-file "$out/truth.csv" -- \
  build/default/tools/pelmor-stream --rate 30 --duration 10 --format csv --output "$out/samples.csv"
echo
echo "== timing report"
/usr/bin/python3 tools/pelmor-timing-report "$out/samples.csv" "$out/truth.csv" --plot "$out/timing.png"
echo
echo "samples: $out/samples.csv   ground truth: $out/truth.csv   plot: $out/timing.png"
