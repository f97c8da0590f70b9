#!/usr/bin/env bash
# CI's bounded exploration: every configuration of scenarios/explore with at most one
# preemption (exhaustive for the two-sensor ones; the three-sensor one stops after its first
# 100,000 schedules, see README "Explored schedules"), then a fixed-seed batch of PCT schedules. Exit 0 when no schedule fails, 1 on
# a failing schedule (its replay string is printed), 2 on bad usage.
#
#   tests/explore/ci.sh [BUILD_DIR]     (default: build/default)
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$root/build/default}
explore=$build/tools/explore/camdeliver-explore
[[ -x $explore ]] || { echo "ci.sh: $explore is not built" >&2; exit 2; }

status=0
started=$SECONDS
for cfg in "$root"/scenarios/explore/*.json; do
  "$explore" "$cfg" --preemptions 1 --limit 100000 || status=1
  "$explore" "$cfg" --random 2000 --pct 3 --seed 16 || status=1
done
echo "explore CI: $((SECONDS - started)) s"
exit $status
