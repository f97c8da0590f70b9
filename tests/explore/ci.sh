#!/usr/bin/env bash
# CI's bounded exploration: every configuration of scenarios/explore with at most one
# preemption, exhaustively (the three-sensor one takes about 75,000 schedules; a search that
# the limit stops fails the step, so that a change which grows the space is seen), then a
# fixed-seed batch of PCT schedules. Exit 0 when every search is exhausted and no schedule
# fails, 1 otherwise (a failing schedule's replay string is printed), 2 on bad usage.
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
  out=$("$explore" "$cfg" --preemptions 1 --limit 100000) || status=1
  printf '%s\n' "$out"
  if ! grep -q ', exhausted,' <<<"$out"; then
    echo "ci.sh: $(basename "$cfg"): the bound-1 search was not exhausted within 100,000 schedules"
    status=1
  fi
  "$explore" "$cfg" --random 2000 --pct 3 --seed 16 || status=1
done
echo "explore CI: $((SECONDS - started)) s"
exit $status
