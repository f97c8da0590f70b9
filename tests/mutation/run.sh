#!/usr/bin/env bash
# Mutation check: the tests must catch every seeded fault of tests/mutation/faults.sh.
#
#   tests/mutation/run.sh [FAULT ...]        (default: every fault)
#
# It copies the tree into a build directory of its own (ORVCAM_MUTATION_DIR, default
# build/mutation), builds there once the library, the unit-test programs that exercise it and
# camdeliver-sim, and checks that they all pass on the unchanged copy. Then, per fault, it
# edits one library source of the copy, rebuilds only the library and the explorer's
# instrumented copy of it (the programs load them at run time and are not relinked), runs
# those tests, the simulator on every shipped scenario and on a batch of generated ones (a
# batch that stalls for a minute counts as caught), and puts the source back. It prints
# which tests and scenarios caught each fault.
#
# Exit status: 0 every fault caught; 1 some fault survived; 2 the check could not run (a fault
# no longer matches the code, a build failed, or a test fails without any fault).
# With ORVCAM_BUILD_LOCK set to a lock file, every build and test step runs under flock on it.
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
work=${ORVCAM_MUTATION_DIR:-$root/build/mutation}
src=$work/src
obj=$work/obj
logs=$work/logs
lock=${ORVCAM_BUILD_LOCK:-}
jobs=2
test_timeout=30       # seconds per test process
sim_stall_timeout=3   # seconds without progress before the simulator gives up
# Programs whose tests exercise the library; the host platform's own tests and the
# simulator's checker tests do not.
test_targets=(delivery_concurrency_test delivery_guard_test delivery_license_plan_test
  delivery_death_test foundation_license_queue_test foundation_frames_test explored_wakeup_test)
# Left out: programs not built here (the simulator's and the log tool's own tests), and
# packaging checks (the installed package's consumers, the example coordinator), and the
# explorer's full table (label explore; the explorer runs below instead).
test_exclude='_NOT_BUILT$|^library_exports$|^consumer_package$|^example_coordinator$|^sim_|^log_|^explore_'
random_batch=(--random 40 --seed 7)  # generated scenarios, free call orders included
# camdeliver-explore on every configuration of scenarios/explore: the first schedules of the
# depth-first search with at most one preemption; a failing schedule counts only when its
# replay string fails again.
explore_args=(--preemptions 1 --limit 4000 --no-shrink)

started=$SECONDS
busy_ms=0
say() { printf '%s\n' "$*"; }
die() { say "mutation check: $*" >&2; exit 2; }

# Runs a command, under the build lock when one is given, and adds its own run time (lock
# wait excluded) to busy_ms. Steps inside a step run under the outer step's lock.
depth=0
step() {
  local t0 t1 rc
  if ((depth > 0)); then
    "$@"
    return
  fi
  depth=1
  [[ -z $lock ]] || { exec 9>>"$lock" && flock 9; }
  t0=$(date +%s%N)
  "$@"
  rc=$?
  t1=$(date +%s%N)
  [[ -z $lock ]] || exec 9>&-
  depth=0
  busy_ms=$((busy_ms + (t1 - t0) / 1000000))
  return $rc
}

# ---- Faults ---------------------------------------------------------------------------------
names=() files=() funcs=() olds=() news=()
# A fault's edits are kept as OLD and NEW lists joined by the unit separator.
sep=$'\x1f'
fault() {
  local name=$1 file=$2 func=$3 old="" new=""
  shift 3
  while (($# >= 2)); do
    old+="$sep$1" new+="$sep$2"
    shift 2
  done
  names+=("$name") files+=("$file") funcs+=("$func") olds+=("$old") news+=("$new")
}
# shellcheck source=faults.sh
source "$here/faults.sh"

selected=()
if (($# == 0)); then
  selected=("${!names[@]}")
else
  for want in "$@"; do
    found=
    for i in "${!names[@]}"; do [[ ${names[i]} == "$want" ]] && selected+=("$i") && found=1; done
    [[ -n $found ]] || die "no fault named '$want'"
  done
fi

# Writes FILE with fault i applied to stdout; fails unless each edit's text occurs exactly once
# in the function's definition.
mutate() {
  local i=$1 text k
  local -a old new
  IFS=$sep read -r -d '' -a old < <(printf '%s%s' "${olds[$i]#"$sep"}" "$sep")
  IFS=$sep read -r -d '' -a new < <(printf '%s%s' "${news[$i]#"$sep"}" "$sep")
  text=$(cat "$2") || return 3
  for k in "${!old[@]}"; do
    text=$(edit_once "${funcs[$i]}" "${old[k]}" "${new[k]:-}" <<<"$text") || return 3
  done
  printf '%s\n' "$text"
}

# One edit of mutate(), stdin to stdout.
edit_once() {
  M_FUNC=$1 M_OLD=$2 M_NEW=$3 awk '
    BEGIN { fn = ENVIRON["M_FUNC"]; old = ENVIRON["M_OLD"]; repl = ENVIRON["M_NEW"]; n = 0 }
    {
      line = $0
      if (!inside && line !~ /^[ \t]/ && index(line, fn) > 0) inside = 1
      if (inside) {
        out = ""
        while ((at = index(line, old)) > 0) {
          out = out substr(line, 1, at - 1) repl
          line = substr(line, at + length(old))
          n++
        }
        line = out line
      }
      print line
      if (inside && $0 ~ /^}/) inside = 0
    }
    END { if (n != 1) { printf "%d matches\n", n > "/dev/stderr"; exit 3 } }'
}

# ---- The copy and its build ---------------------------------------------------------------
mkdir -p "$src" "$logs" || die "cannot create $work"
# Files whose content differs are copied afresh (with a new time stamp, so that ninja rebuilds
# them, also after an interrupted run left a fault behind); unchanged ones are left alone.
sync_copy() {
  local f
  if git -C "$root" rev-parse --git-dir >/dev/null 2>&1; then
    git -C "$root" ls-files -z --cached --others --exclude-standard
  else
    (cd "$root" && find . -path ./build -prune -o -type f -print0)
  fi | while IFS= read -r -d '' f; do
    [[ -f $root/$f ]] || continue
    if ! cmp -s "$root/$f" "$src/$f"; then
      mkdir -p "$(dirname "$src/$f")" && cp "$root/$f" "$src/$f"
    fi
  done
}
restore() { cp "$root/$1" "$src/$1"; }
current=""
trap '[[ -n $current ]] && restore "$current"' EXIT

sync_copy || die "cannot copy the tree into $src"
if [[ ! -f $obj/build.ninja ]]; then
  # Debug builds compile fastest. Unused-variable warnings are relaxed: a deletion may leave
  # a variable unused, which is not what a fault is about.
  step cmake -S "$src" -B "$obj" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DORVCAM_BUILD_BENCH=OFF \
    -DCMAKE_LINK_DEPENDS_NO_SHARED=ON \
    "-DCMAKE_CXX_FLAGS=-Wno-unused-variable -Wno-unused-but-set-variable" \
    >"$logs/configure.log" 2>&1 || die "configure failed, see $logs/configure.log"
fi

build() { ninja -C "$obj" -j "$jobs" "$@" >"$logs/build.log" 2>&1; }
step build orvcam_camdeliver orvcam_camdeliver_tracked camdeliver-sim camdeliver-explore \
  "${test_targets[@]}" ||
  die "build failed, see $logs/build.log"
sim=$obj/tools/sim/camdeliver-sim
scenarios=("$src"/scenarios/*.json)
explore=$obj/tools/explore/camdeliver-explore
explore_configs=("$src"/scenarios/explore/*.json)

# Explores one configuration; prints what caught the fault, if anything.
explore_one() {
  local cfg=$1 log=$2 name replay rc
  name=$(basename "$cfg" .json)
  timeout 120 "$explore" "$cfg" "${explore_args[@]}" >"$log" 2>&1
  rc=$?
  ((rc == 0)) && return
  if ((rc != 1)); then
    say "camdeliver-explore $name (exit $rc)"
    return
  fi
  replay=$(sed -n 's/^replay: //p' "$log" | head -1)
  if timeout 60 "$explore" "$cfg" --replay "$replay" >"$log.replay" 2>&1; then
    say "camdeliver-explore $name (its replay $replay passed)"
  else
    say "camdeliver-explore $name, replay $replay"
  fi
}

# Runs the tests and the scenarios; writes the names of those that failed, one per line, to
# $logs/TAG.failed.
failures() {
  local tag=$1 s name out=$logs/$1.failed
  : >"$out"
  rm -f "$obj/Testing/Temporary/LastTestsFailed.log"
  step ctest --test-dir "$obj" -j "$jobs" --timeout "$test_timeout" --no-tests=error \
    -E "$test_exclude" >"$logs/$tag.ctest.log" 2>&1
  if [[ -f $obj/Testing/Temporary/LastTestsFailed.log ]]; then
    cut -d: -f2- "$obj/Testing/Temporary/LastTestsFailed.log" >>"$out"
  elif ! grep -q '100% tests passed' "$logs/$tag.ctest.log"; then
    say "ctest did not run, see $logs/$tag.ctest.log" >>"$out"
  fi
  for s in "${scenarios[@]}"; do
    name=$(basename "$s" .json)
    step timeout 60 "$sim" "$s" --stall-timeout "$sim_stall_timeout" \
      >"$logs/$tag.sim.$name.log" 2>&1 || say "camdeliver-sim $name.json" >>"$out"
  done
  step timeout 60 "$sim" "${random_batch[@]}" --stall-timeout "$sim_stall_timeout" \
    >"$logs/$tag.sim.random.log" 2>&1 || say "camdeliver-sim ${random_batch[*]}" >>"$out"
  for s in "${explore_configs[@]}"; do
    step explore_one "$s" "$logs/$tag.explore.$(basename "$s" .json).log" >>"$out"
  done
}

say "== mutation check: ${#selected[@]} faults, tests of ${#test_targets[@]} programs," \
  "${#scenarios[@]} scenarios, ${random_batch[*]} and camdeliver-explore ${explore_args[*]}" \
  "on ${#explore_configs[@]} configurations"
step failures unchanged
baseline=$(cat "$logs/unchanged.failed")
[[ -z $baseline ]] || die "fails without any fault (see $logs/unchanged.*):"$'\n'"$baseline"
say "unchanged copy: every test and scenario passes"

# Applies fault i to the copy, rebuilds the library and runs everything; 2 when the fault
# cannot be applied or built.
check_fault() {
  local i=$1 name=${names[$1]} file=${files[$1]}
  [[ -z $current ]] || restore "$current"
  current=$file
  if ! mutate "$i" "$root/$file" >"$src/$file.mutant" 2>"$logs/$name.mutate.log"; then
    say "fault $name no longer matches $file: $(cat "$logs/$name.mutate.log")" >&2
    return 2
  fi
  mv "$src/$file.mutant" "$src/$file"
  if ! build orvcam_camdeliver orvcam_camdeliver_tracked; then
    say "fault $name does not build, see $logs/build.log" >&2
    return 2
  fi
  failures "$name"
}

survived=0
for i in "${selected[@]}"; do
  name=${names[i]}
  step check_fault "$i" || die "fault $name could not be checked"
  caught=$(cat "$logs/$name.failed")
  if [[ -z $caught ]]; then
    say "SURVIVED  $name"
    survived=$((survived + 1))
  else
    say "caught    $name by $(wc -l <<<"$caught"):"
    sed 's/^/            /' <<<"$caught"
  fi
done
restore "$current"
current=""

say "== ${#selected[@]} faults, $survived survived; $((SECONDS - started)) s in all," \
  "$((busy_ms / 1000)) s of it building and testing"
((survived == 0)) || exit 1
exit 0
