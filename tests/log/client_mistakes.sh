#!/bin/sh
# The mistaken coordinator's debug logs, one per mistake, read by camdeliver-log: each must be
# blamed on the client (a [client] finding naming the rule it breaks, exit 1) and never on the
# library ([order], [sync], [raw-switch], [fd], [delivery]). Also: an abort for a frame the
# sensor's own drop retired names the drop; a coordinator that hung and stopped logging is a
# stall once the capture's end is given; a flush reported with frame 0 is replayed.
#   client_mistakes.sh MISTAKES LOG SIM WORKDIR
set -u
mistakes=$1 log=$2 sim=$3 work=$4
mkdir -p "$work"
failed=0
fail() { echo "FAIL ($1): $2"; cat "$work/$1.out"; failed=1; }

# read MODE RC [CAPTURE-END] -- TEXT...: the mode's log read with the exit code and every text.
read_log() {
  mode=$1 want=$2
  shift 2
  extra=""
  if [ "$1" != "--" ]; then extra="--capture-end $1"; shift; fi
  shift
  # The abort of a fatal mode is what it is for; its log is all that counts.
  ORVCAM_LOG_USEC=1 "$mistakes" "$mode" 2>"$work/$mode.log" >/dev/null
  rc=0
  # shellcheck disable=SC2086
  "$log" $extra "$work/$mode.log" --scenario "$work/$mode.json" >"$work/$mode.out" 2>&1 || rc=$?
  [ "$rc" = "$want" ] || fail "$mode" "exit $rc, wanted $want"
  for text in "$@"; do
    grep -qF -- "$text" "$work/$mode.out" || fail "$mode" "no \"$text\""
  done
  if grep -qE '^  \[(order|sync|raw-switch|fd|delivery)\]' "$work/$mode.out"; then
    fail "$mode" "a finding of the library's class for a client's mistake"
  fi
}

rule="rule broken: don't"
read_log lagging 1 -- "[client] S:1 prepared F:2 after 21 other frames had been first prepared" \
  "$rule prepare a frame after 20 other frames have been first prepared" \
  "[fatal] fatal assertion \"[S:1 F:2] license should not exist !!"
read_log out-of-order 1 -- "[client] S:0 F:10 EnqJob was sent at" \
  "although S:0 prepared F:11 first" "$rule send a sensor's frames in another order"
read_log double-prepare 1 -- "[client] S:0 F:10 was prepared twice" \
  "$rule prepare a frame twice for one sensor"
read_log send-after-drop 1 -- "[client] S:0 F:5 was sent for after the sensor's own drop" \
  "$rule send a configure job, or an enqueue, after a drop of that sensor's frame" \
  "F:5 had left the pool: retired by the drop of S:0 F:5 (line "
# Without the capture's end the hung coordinator's last line is the end: nothing waited long.
read_log hung 0 -- "S:0 F:2 EnqJob had waited"
read_log hung 1 +3 -- "[blocked] blocked send: S:0 F:2 EnqJob still waiting at the end of the capture" \
  "missing partner S:1 F:1: prepared, no send"
read_log flush 0 -- "no findings"
grep -q '"type":"Flush"' "$work/flush.json" || fail flush "the replay lost the flush"
"$sim" "$work/flush.json" >"$work/flush.out" 2>&1 ||
  fail flush "the replay of the flush failed"
grep -qE '^S:0 +4 +0 +1 +0 +3 ' "$work/flush.out" || fail flush "the replay flushed nothing"
[ "$failed" = 0 ] && echo "every client mistake blamed on the client"
exit "$failed"
