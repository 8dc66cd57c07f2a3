#!/usr/bin/env bash
# pelmor-check as a process on the virtual board, through tools/pelmor-vboard.
# usage: check_cli_test.sh CHECK_EXE LAUNCHER BOARD_LIB [EMULATOR]
set -uo pipefail
check=$1 launcher=$2 board=$3
read -ra emulator <<< "${4:-}"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset "${!PELMOR_VBOARD_@}"

fail() { echo "FAIL: $*"; echo "--- stdout:"; cat "$work/out"; echo "--- stderr:"; cat "$work/err"; exit 1; }
# run [wrapper...] -- [launcher options] -- [check arguments]. Timing checks judge
# real clock brackets: a run a loaded machine stretched is tried again.
run() {
  local wrap=() opts=()
  while [[ $1 != -- ]]; do wrap+=("$1"); shift; done
  shift
  while [[ $1 != -- ]]; do opts+=("$1"); shift; done
  shift
  for _ in 1 2 3; do
    "${wrap[@]}" "$launcher" --board "$board" "${opts[@]}" -- "${emulator[@]}" "$check" "$@" > "$work/out" 2> "$work/err"
    rc=$?
    grep -qE '^FAIL (clock-bridge|snapshots):|"name":"(clock-bridge|snapshots)","status":"FAIL"' "$work/out" || break
  done
}
expect_rc() { [[ $rc == "$1" ]] || fail "exit code $rc, expected $1"; }
expect_line() { grep -qE -- "$1" "$work/out" || fail "no line matching: $1"; }

# A healthy board: one line per check, nothing fails (unless this machine itself
# refuses real-time priority).
run -- -- --seconds 1
grep -q '^FAIL realtime:' "$work/out" && rt_refused=yes || rt_refused=no
[[ $rt_refused == yes ]] || expect_rc 0
[[ $(wc -l < "$work/out") == 11 ]] || fail "expected 11 lines"
expect_line '^PASS who-am-i: 0x47$'
expect_line '^PASS int1-edges: 2[0-9] edges in 1.00 s'
! grep -v '^FAIL realtime:' "$work/out" | grep -q '^FAIL' || fail "a check failed on a healthy board"

# The same as JSON.
run -- -- --rate 30 --json
[[ $rt_refused == yes ]] || expect_rc 0
python3 -c 'import json,sys; d=json.load(open(sys.argv[1])); assert len(d["checks"]) == 11
assert d["failures"] == sum(c["name"] == "realtime" and c["status"] == "FAIL" for c in d["checks"])' \
  "$work/out" || fail "--json is not the expected object"

# A missing chip: its FAIL, the checks that need it skipped, exit status 1.
run -- --chips none -- --seconds 1
expect_rc 1
expect_line '^FAIL gpio-chips: no /dev/gpiochip\* entries; remedy: '
expect_line '^WARN int1-edges: not checked: needs the INT1 line; remedy: fix the failure above first$'

# Real-time priority refused: its failure with the remedy; the board checks still pass.
wrap=(prlimit --rtprio=0)
[[ $(id -u) == 0 ]] && wrap+=(setpriv --inh-caps=-sys_nice --bounding-set=-sys_nice)
run "${wrap[@]}" -- -- --seconds 1
expect_rc 1
expect_line '^PASS int1-edges: '
expect_line '^FAIL realtime: SCHED_FIFO 82 refused \(Operation not permitted; RLIMIT_RTPRIO 0/0, CAP_SYS_NICE absent\).*; remedy: .*LimitRTPRIO=82'

# Usage errors.
run -- -- --rate 50
expect_rc 2
grep -q 'pelmor-check: invalid argument: --rate' "$work/err" || fail "no usage error text"
echo "pelmor-check CLI: all cases passed"
