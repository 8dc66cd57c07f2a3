#!/usr/bin/env bash
# pelmor-stream as a process on the virtual board, through tools/pelmor-vboard.
# usage: stream_cli_test.sh formats|signals|exit_codes|restart|truth STREAM_EXE LAUNCHER BOARD_LIB [EMULATOR]
# EMULATOR: the command line that runs a cross-built program here (qemu-user), if any.
set -uo pipefail
case_name=$1 stream=$2 launcher=$3 board=$4
read -ra emulator <<< "${5:-}"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset "${!PELMOR_VBOARD_@}"

fail() { echo "FAIL ($case_name): $*"; echo "--- stderr:"; cat "$work/err"; exit 1; }
# run [launcher options] -- [tool arguments]: output in $work/out and $work/err, status in $rc.
# A start that the driver refuses for timing (a clock bracket stretched by a busy
# machine, or no INT1 edge in time) is tried again, as a user would.
run() {
  local opts=()
  while [[ $1 != -- ]]; do opts+=("$1"); shift; done
  shift
  for _ in 1 2 3; do
    "$launcher" --board "$board" "${opts[@]}" -- "${emulator[@]}" "$stream" "$@" > "$work/out" 2> "$work/err"
    rc=$?
    [[ $rc == 1 ]] && grep -qE 'start failed: (failed to establish TMST|failed to refresh TMST|GPIO395 boundary event)' \
      "$work/err" || break
  done
}
delivered() { awk '$1 == "samples_delivered" { print $2 }' "$work/err"; }
rows() { wc -l < "${1:-$work/out}"; }
expect_rc() { [[ $rc == "$1" ]] || fail "exit code $rc, expected $1"; }
expect_err() { grep -qF -- "$1" "$work/err" || fail "stderr lacks: $1"; }

case $case_name in
formats)
  run -- --count 8 --output "$work/s.csv" --quiet
  expect_rc 0
  [[ ! -s $work/out ]] || fail "samples written to stdout despite --output"
  ! grep -qE '^pelmor-stream:|runtime health' "$work/err" || fail "--quiet still shows status or health"
  [[ $(rows "$work/s.csv") == 9 ]] || fail "expected a header and 8 rows"
  awk -F, 'NR == 1 { if (NF != 23) exit 1; next }
           NF != 23 || $1 != NR - 2 || $2 <= last { exit 1 } { last = $2 }' "$work/s.csv" ||
    fail "rows out of order or malformed: $(cat "$work/s.csv")"
  for format in jsonl text; do
    run -- --format "$format" -n 5 --rate 25
    expect_rc 0
    [[ $(rows) == 5 ]] || fail "$format: expected 5 lines"
    for i in 0 1 2 3 4; do
      prefix="#$i mapped="
      [[ $format == jsonl ]] && prefix="{\"sample_index\":$i,"
      sed -n "$((i + 1))p" "$work/out" | grep -qF -- "$prefix" || fail "$format line $i: $(cat "$work/out")"
    done
    (( $(delivered) >= 5 )) || fail "$format: no health table"
  done ;;
signals)
  for signal in INT TERM; do
    # The background job opens its files only once it runs: the previous
    # round's status lines must not be there for the wait below to find.
    rm -f "$work/out" "$work/err"
    "$launcher" --board "$board" -- "${emulator[@]}" "$stream" > "$work/out" 2> "$work/err" &
    pid=$!
    # Synchronise on a status line that has counted samples, not on time.
    for _ in $(seq 600); do
      grep -qsE 'pelmor-stream: .* [1-9][0-9]* samples' "$work/err" && break
      sleep 0.1
    done
    kill -s "$signal" "$pid"
    wait "$pid"
    rc=$?
    expect_rc 0
    expect_err "TIMING_DROP_SUMMARY label=final"
    # Everything the driver delivered reached the output, and nothing else.
    [[ $(delivered) == $(($(rows) - 1)) ]] || fail "SIG$signal: delivered $(delivered), rows $(rows)"
  done ;;
exit_codes)
  run -- --rate 50
  expect_rc 2
  expect_err "Try 'pelmor-stream --help'"
  run -- --output /nonexistent-dir/x.csv
  expect_rc 4
  expect_err "cannot open /nonexistent-dir/x.csv"
  run --no-spidev -- --count 3
  expect_rc 1
  expect_err "ICM-42688 start failed: "
  expect_err "pelmor-stream: start failed: I/O error (-3)"
  [[ ! -s $work/out ]] || fail "output written for a run that never started"
  # A sentinel sample well after the first accepted one ends the worker.
  run --faults "sentinel:nth=200" -- --duration 120
  expect_rc 3
  expect_err "worker ended by itself"
  [[ $(delivered) == $(($(rows) - 1)) ]] || fail "health table missing or rows lost" ;;
restart)
  # A sentinel sample well into the run ends the worker; one restart carries on to the count.
  run --faults "sentinel:nth=120" -- --count 150 --restart 2
  expect_rc 0
  expect_err "imu worker fatal: IMU FIFO sample contains non-startup sentinel values"
  expect_err "pelmor-stream: the driver's worker ended by itself; restarting (1 of 2)"
  ! grep -qF "restarting (2 of 2)" "$work/err" || fail "restarted a run that did not end"
  [[ $(rows) == 151 ]] || fail "expected a header and 150 rows, got $(rows)"
  # INT1 fires but the FIFO never fills: the health record shows nothing wrong,
  # so the tool says it.
  run --faults "stall-fifo:nth=1:count=0" -- --duration 3 --quiet
  expect_rc 0
  expect_err "pelmor-stream: warning: no sample was delivered in"
  run -- --count 40 --quiet
  ! grep -qF "warning" "$work/err" || fail "a healthy run was warned about" ;;
truth)
  run --profile realistic --truth-file "$work/t.csv" -- --count 12 --quiet
  expect_rc 0
  head -1 "$work/t.csv" | grep -q '^index,raw_ns,' || fail "truth header"
  # Every sample has a true instant with its FIFO timestamp field within 1 ms of its mapped time.
  awk -F, 'FNR == 1 { next }
           FILENAME == ARGV[1] { truth[$6] = truth[$6] " " $2; next }
           { found = 0; n = split(truth[$19], t, " ")
             for (i = 1; i <= n; i++) if (t[i] - $2 < 1e6 && $2 - t[i] < 1e6) found = 1
             if (!found) { print "unmatched: " $0; bad = 1 } }
           END { exit bad }' "$work/t.csv" "$work/out" || fail "samples missing from the truth" ;;
*)
  fail "unknown case" ;;
esac
echo "ok ($case_name)"
