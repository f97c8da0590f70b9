#!/bin/sh
# The simulator's debug log of one scenario, turned into the shapes field logs arrive in (every
# logcat layout and modifier, a bugreport, several sessions in one process, time stamps out of
# order, a new year crossed, two captures joined with an overlap, lost lines, cuts at every
# line), reads back with no false finding and, but for the lost lines and the cuts, with the
# simulator's per-sensor counts and the same result when frames are let go four at a time.
# A scenario whose client sends no-frame enqueues is given "noframe" as sixth argument: those
# write no line unless they wait, so the enqueued column is left out of the comparison.
#   corpus.sh SIM LOG CORPUS SCENARIO WORKDIR [noframe]
set -eu
sim=$1 log=$2 corpus=$3 scenario=$4 work=$5 noframe=${6:-}
mkdir -p "$work"
. "$(dirname "$0")/summary_counts.sh"
[ "$noframe" != noframe ] || counts_without_enqueued
"$sim" "$scenario" --log-level debug >"$work/sim.out" 2>"$work/run.log"
expected=$(counts "$work/sim.out")
fail() { echo "$1"; cat "$work/log.out"; exit 1; }
# read FILE EXPECTED_COUNTS: exit 0, no finding, the counts given.
read_back() {
  rc=0; "$log" "$1" >"$work/log.out" 2>&1 || rc=$?
  [ "$rc" = 0 ] || fail "$(basename "$1"): exit $rc"
  grep -q '^no findings$' "$work/log.out" || fail "$(basename "$1"): findings"
  [ "$(counts "$work/log.out")" = "$2" ] || {
    echo "$(basename "$1"): counts differ"; echo "simulator:"; echo "$2"; fail "log:"
  }
  # Checked a few frames at a time, as a long capture is, the result is the same.
  "$log" --window 4 "$1" >"$work/window.out" 2>&1 || true
  cmp -s "$work/log.out" "$work/window.out" || {
    diff "$work/log.out" "$work/window.out"; fail "$(basename "$1"): differs with --window 4"
  }
}
for layout in threadtime time brief process tag thread raw long studio studio-old threadtime,year,usec \
  threadtime,nsec,zone threadtime,uid threadtime,epoch threadtime,monotonic time,color \
  threadtime,color,printable,descriptive long,year,zone threadtime,crlf brief,crlf; do
  "$corpus" layout "$layout" "$work/run.log" "$work/$layout.log"
  read_back "$work/$layout.log" "$expected"
done
for n in 2 3; do
  "$corpus" sessions "$n" "$work/run.log" "$work/sessions-$n.log"
  read_back "$work/sessions-$n.log" "$(for i in $(seq "$n"); do echo "$expected"; done)"
done
"$corpus" sessions 2 "$work/run.log" "$work/sessions-newtids.log" newtids
read_back "$work/sessions-newtids.log" "$(printf '%s\n%s' "$expected" "$expected")"
"$corpus" backwards "$work/run.log" "$work/backwards.log"
read_back "$work/backwards.log" "$expected"
"$corpus" midnight "$work/run.log" "$work/midnight.log"
read_back "$work/midnight.log" "$expected"
"$corpus" bugreport "$work/run.log" "$work/bugreport.txt"
read_back "$work/bugreport.txt" "$expected"
"$corpus" overlap "$work/run.log" "$work/overlap.log"
read_back "$work/overlap.log" "$expected"
# A capture that lost lines gives no finding: what later lines prove is taken as written, and
# a breach that rests only on a line being absent is named for attention, not failed.
for seed in 1 2 3 4 5 6 7 8; do
  "$corpus" lossy "$seed" "$work/run.log" "$work/lossy.log"
  rc=0; "$log" "$work/lossy.log" >"$work/log.out" 2>&1 || rc=$?
  [ "$rc" = 0 ] || fail "lossy.log (seed $seed): exit $rc"
  "$log" --window 4 "$work/lossy.log" >"$work/window.out" 2>&1 || true
  cmp -s "$work/log.out" "$work/window.out" || {
    cp "$work/lossy.log" "$work/lossy-$seed-window.log"  # kept for a look
    diff "$work/log.out" "$work/window.out"
    fail "lossy.log (seed $seed): differs with --window 4 (kept as lossy-$seed-window.log)"
  }
done
# A capture cut at any line is never a hang.
total=$(wc -l <"$work/run.log")
i=1
while [ "$i" -le "$total" ]; do
  head -n "$i" "$work/run.log" >"$work/cut.log"
  rc=0; "$log" "$work/cut.log" >"$work/log.out" 2>&1 || rc=$?
  [ "$rc" != 1 ] || fail "cut after line $i: exit 1"
  i=$((i + 1))
done
echo "corpus of $(basename "$scenario"): every layout, sessions, clock steps, lost lines and $total cuts read clean"
