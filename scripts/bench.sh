#!/usr/bin/env bash
# Builds the "bench" preset (Release, benchmarks on) and runs every benchmark:
# timestamp quality, mispairing and cost of the driver on the virtual board, the
# targets table per board profile (realistic, slow host, PLL tick; flags 0 and the
# bracket fit; 10 s and 60 s runs) with a plot of every run's first seconds, then
# the library's hot paths. Writes build/bench/results/summary.md (machine, date,
# command, every table) and prints it.
#
#   scripts/bench.sh            the full run (about twenty minutes)
#   scripts/bench.sh --quick    short runs, to check that everything works
#   scripts/bench.sh [--quick] [pelmor_timestamp_bench options...]
set -euo pipefail
cd "$(dirname "$0")/.."

quick=0
args=()
for a in "$@"; do
  if [ "$a" = "--quick" ]; then quick=1; else args+=("$a"); fi
done
hot_paths=(--benchmark_repetitions=5 --benchmark_report_aggregates_only=true)
if [ "$quick" -eq 1 ]; then
  args=(--duration=10 --fault-duration=8 --ideal-seconds=3 --starts=2 --target-durations=4 "${args[@]}")
  hot_paths=(--benchmark_min_time=0.05)
fi

bash scripts/install-deps.sh python3-matplotlib
cmake --preset bench >/dev/null
cmake --build --preset bench --parallel "${PELMOR_BENCH_JOBS:-2}" \
  --target pelmor pelmor_vboard pelmor_timestamp_bench pelmor_hot_paths_bench

out=build/bench/results
mkdir -p "$out"
echo "== timestamp quality and cost on the virtual board (library diagnostics: $out/timestamp-bench.log)"
build/bench/bench/pelmor_timestamp_bench --out="$out/runs" --plot "${args[@]}" \
  >"$out/timestamp-quality.md" 2>"$out/timestamp-bench.log"
if [ -s "$out/runs/first-seconds.csv" ]; then
  bench/plot_first_seconds.py "$out/runs/first-seconds.csv" "$out/first-seconds.png"
fi
echo "== hot paths"
build/bench/bench/pelmor_hot_paths_bench "${hot_paths[@]}" \
  --benchmark_out="$out/hot-paths.json" --benchmark_out_format=json >"$out/hot-paths.txt" 2>&1

{
  echo "# Benchmark run $(date -u '+%Y-%m-%d %H:%M UTC')"
  echo
  echo "- command: \`scripts/bench.sh${*:+ $*}\`"
  echo "- machine: $(nproc) CPUs, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'), kernel $(uname -r)"
  echo "- load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)"
  echo "- compiler: $(c++ --version | head -1); Google Benchmark $(dpkg-query -W -f='${Version}' libbenchmark-dev 2>/dev/null || echo '?')"
  echo
  cat "$out/timestamp-quality.md"
  echo
  echo "### Hot paths (Google Benchmark)"
  echo
  echo '```'
  grep -E '^(BM_[A-Za-z0-9]+(_median|_cv)?[[:space:]]|Benchmark|---)' "$out/hot-paths.txt" || cat "$out/hot-paths.txt"
  echo '```'
} >"$out/summary.md"
cat "$out/summary.md"
echo
echo "written: $out/summary.md, $out/first-seconds.png (plots and per-run CSVs in $out/runs/)"
