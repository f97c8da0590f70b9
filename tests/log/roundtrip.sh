#!/bin/sh
# Round trip of one scenario: the simulator's log at debug and at verbose level, read back by
# camdeliver-log, gives the simulator's per-sensor counts and no findings; the history it
# rebuilds reads back into camdeliver-sim --check without an ordering violation, and the
# scenario it writes runs clean. The traces both tools write, in both formats, pass the
# structure check and carry the flow arrows of the waits; the gzip'd JSON trace is the JSON
# trace, and the protobuf trace holds the deliverer's lines as log events with --trace-logs.
# The files written as frames settle a few at a time hold what the files written at the end
# hold.
# A scenario whose client provokes the library's tolerated oddities on purpose (late and racing
# drops, for example) is given "warnings" as sixth argument: its warnings must then each be
# explained by a legal client call order, and the run still passes.
#   roundtrip.sh SIM LOG TRACE_CHECK SCENARIO WORKDIR [warnings]
set -eu
sim=$1 log=$2 check=$3 scenario=$4 work=$5 expect=${6:-}
mkdir -p "$work"
. "$(dirname "$0")/summary_counts.sh"
# Such a client also sends no-frame enqueues, which the log cannot count.
[ "$expect" != warnings ] || counts_without_enqueued
for level in debug verbose; do
  # The simulator's trace in each format: Chrome JSON at debug level, Perfetto's protobuf at
  # verbose level.
  simtrace=$work/sim-trace.json
  [ "$level" = verbose ] && simtrace=$work/sim-trace.pftrace
  "$sim" "$scenario" --log-level "$level" --trace "$simtrace" >"$work/sim.out" \
    2>"$work/run.log"
  rc=0
  "$log" "$work/run.log" --history "$work/h.json" --scenario "$work/s.json" \
    --trace "$work/t.json" >"$work/log.out" || rc=$?
  if [ "$rc" != 0 ] || ! grep -q '^no findings$' "$work/log.out" ||
    grep -q '^    needs attention$' "$work/log.out"; then
    echo "camdeliver-log found something in the $level log:"; cat "$work/log.out"; exit 1
  fi
  if [ "$expect" = warnings ] && ! grep -q 'explained by a legal client call order' \
    "$work/log.out"; then
    echo "the $level log's provoked warnings are not explained:"; cat "$work/log.out"; exit 1
  fi
  # The same trace rebuilt from the log in Perfetto's format, whole with the log lines and four
  # frames at a time.
  "$log" "$work/run.log" --trace "$work/t.pftrace" --trace-logs >/dev/null || true
  "$log" "$work/run.log" --window 4 --trace "$work/t4.pftrace" >/dev/null || true
  "$check" "$simtrace" "$work/t.json" "$work/t.pftrace" "$work/t4.pftrace"
  lines=$(grep -cE ' OrvCam/(CamDeliver|CamDeliverGuard|FrameContextPool|LicenseQueue): ' \
    "$work/run.log" || true)
  events=$("$check" --counts "$work/t.pftrace" | sed -n 's/.* flows, \([0-9]*\) log events$/\1/p')
  if [ "$events" != "$lines" ]; then
    echo "the $level protobuf trace holds $events log events for the deliverer's $lines lines"
    exit 1
  fi
  if [ "$level" = debug ]; then
    # gzip'd, the JSON trace is the same bytes.
    "$log" "$work/run.log" --trace "$work/t.json.gz" >/dev/null || true
    "$check" "$work/t.json.gz"
    gzip -dc "$work/t.json.gz" | cmp -s - "$work/t.json" || {
      echo "t.json.gz does not hold t.json"; exit 1
    }
  fi
  # Every enqueue that waited for its previous frame's partners gets the arrow from the job that
  # released it, at either level. A few may be released by a drop or flush instead, which has
  # no job to draw from: a client that drops and flushes on purpose (free-call-orders) was seen
  # a sixth short under ThreadSanitizer's timing, so it is given a quarter.
  waited=$(grep -o '\[S:[0-9]* F:[0-9]*\]\[EnqJob\] wait previous syncframe' "$work/run.log" |
    sort -u | wc -l)
  flows=$(grep -o '"ph":"s"' "$work/t.json" | wc -l)
  slack=$((waited / 10 + 1))
  [ "$expect" != warnings ] || slack=$((waited / 4 + 2))
  if [ "$flows" -gt "$waited" ] || [ $((waited - flows)) -gt "$slack" ]; then
    echo "$flows flow arrows in the $level trace for $waited enqueues that waited"; exit 1
  fi
  # The simulator draws them from its own records, which time a wait a little apart from the
  # library's line, and a wait that a drop or flush released has no partner's job to draw from:
  # as many, give or take a quarter (a scenario that drops and flushes on purpose, such as
  # free-call-orders, was seen a seventh short).
  simflows=$("$check" --counts "$simtrace" | sed -n 's/.*: \([0-9]*\) flows,.*/\1/p')
  diff=$((simflows - waited))
  if [ "${diff#-}" -gt $((waited / 4 + 2)) ]; then
    echo "$simflows flow arrows in the simulator's $level trace for $waited enqueues that waited"
    exit 1
  fi
  if [ "$(counts "$work/sim.out")" != "$(counts "$work/log.out")" ]; then
    echo "per-sensor counts differ at $level level"
    echo "simulator:"; counts "$work/sim.out"; echo "log:"; counts "$work/log.out"; exit 1
  fi
  # The rebuilt history declares the rules a log cannot support; the checker skips them.
  "$sim" --check "$work/h.json" >"$work/check.out" || {
    echo "camdeliver-sim --check on the rebuilt history:"; cat "$work/check.out"; exit 1
  }
  grep -q '^not checked: licence' "$work/check.out" || {
    echo "camdeliver-sim --check does not say that it skipped the licence rule"; exit 1
  }
  "$sim" "$work/s.json" >"$work/replay.out" 2>&1 || {
    echo "the replay scenario did not run clean:"; cat "$work/replay.out"; cat "$work/s.json"
    exit 1
  }
  # Written as the frames settle, four at a time (a long capture's way), the files hold the
  # same items: the history and the trace line for line, the scenario's lists up to order.
  "$log" "$work/run.log" --window 4 --history "$work/h4.json" --scenario "$work/s4.json" \
    --trace "$work/t4.json" >"$work/log4.out" || true
  for f in h t s; do
    # An item's line ends in a comma, or in the list's bracket when it is the last.
    sed 's/[],]*$//' "$work/$f.json" | sort >"$work/$f.sorted"
    sed 's/[],]*$//' "$work/${f}4.json" | sort >"$work/${f}4.sorted"
    cmp -s "$work/$f.sorted" "$work/${f}4.sorted" || {
      echo "$f.json differs when written four frames at a time ($level level):"
      diff "$work/$f.sorted" "$work/${f}4.sorted" | head -20; exit 1
    }
  done
done
echo "round trip of $(basename "$scenario") at debug and verbose level: same counts," \
  "${expect:-no} findings"
