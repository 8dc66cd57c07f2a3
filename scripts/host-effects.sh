#!/usr/bin/env bash
# What the host's set-up does to the timestamps, on the virtual board: the same
# recording (realistic profile, 30 Hz) with the host quiet, under two busy loops
# with the worker at its real-time priority, under the same load with the priority
# refused, and refused but on a core of its own (the load pinned to the other
# one, as isolating a core would). Prints the timing report's side-by-side table.
#
#   scripts/host-effects.sh [seconds per run, default 60]
#
# Needs two CPUs and root (to grant, then refuse, SCHED_FIFO); the preemption
# model and the CPU governor are the host's and are printed, not varied.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
[ "$(id -u)" = 0 ] || { echo "host-effects: run as root (the real-time runs need it)" >&2; exit 1; }
[ "$(nproc)" -ge 2 ] || { echo "host-effects: needs two CPUs" >&2; exit 1; }
cmake --preset default >/dev/null
cmake --build --preset default --target pelmor pelmor_vboard pelmor-stream >/dev/null
board=$(ls build/default/vboard/libpelmor_vboard.so* | head -n1)
out=build/host-effects
rm -rf "$out" && mkdir -p "$out"

loads=()
stop_load() { for pid in "${loads[@]}"; do kill "$pid" 2>/dev/null || true; done; loads=(); }
trap stop_load EXIT
start_load() { # one busy loop per CPU list given
  for cpus in "$@"; do
    taskset -c "$cpus" bash -c 'while :; do :; done' &
    loads+=("$!")
  done
}
# No CAP_SYS_NICE and no RLIMIT_RTPRIO: the worker's request is refused.
refused=(setpriv --inh-caps=-sys_nice --bounding-set=-sys_nice -- prlimit --rtprio=0 --)

record() { # label, then the command prefix (may be empty)
  local label=$1
  shift
  "$@" tools/pelmor-vboard --board "$board" --profile realistic --seed 7 --truth-file "$out/$label.truth.csv" -- \
    build/default/tools/pelmor-stream --rate 30 --duration "$seconds" --format csv --quiet \
    --output "$out/$label.csv" 2>"$out/$label.log"
  grep -o 'set_result=[a-z]* .*effective_policy=[A-Z_]*' "$out/$label.log" | sed "s/^/$label: /"
}

record quiet
start_load 0 1
record load-fifo
record load-refused "${refused[@]}"
stop_load
start_load 0 0
record own-core-refused taskset -c 1 "${refused[@]}"
stop_load

echo "kernel $(uname -r) $(uname -v | grep -oE 'PREEMPT[A-Z_]*' | head -n1); governor: $(cat /sys/devices/system/cpu/cpu0/cpufreq/scaling_governor 2>/dev/null || echo none)"
compare=()
for label in quiet load-fifo load-refused own-core-refused; do
  compare+=(--compare "$label=$out/$label.csv,$out/$label.truth.csv")
done
{
  python3 tools/pelmor-timing-report "${compare[@]}"
  # The delivery side, from each run's closing diagnostics (µs).
  printf '\n%-18s %6s %18s %18s %16s\n' run drops "max read elapsed" "max delivery age" "max half window"
  field() { grep -o "$2=[0-9]*" "$out/$1.log" | tail -n1 | cut -d= -f2; }
  for label in quiet load-fifo load-refused own-core-refused; do
    awk -v l="$label" -v d="$(field "$label" total_drops)" -v r="$(field "$label" max_read_elapsed_ns)" \
      -v a="$(field "$label" event_delivery_age_max_ns)" -v h="$(field "$label" max_half_window_ns)" \
      'BEGIN { printf "%-18s %6d %18.0f %18.0f %16.1f\n", l, d, r / 1e3, a / 1e3, h / 1e3 }'
  done
} | tee "$out/table.md"
