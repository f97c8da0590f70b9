#!/usr/bin/env bash
# Builds the example coordinator against an installed build tree, as an integrator would, runs
# it with the library's debug lines captured, and reads the capture with camdeliver-log.
#
#   [CXX=compiler] [EXAMPLE_CXXFLAGS=flags] examples/run.sh <build-dir> <scratch-dir>
#
# CXX (default c++) and EXAMPLE_CXXFLAGS (for example clang's -stdlib=libc++) must match the
# build tree's compiler and standard library. Needs camdeliver-log built in <build-dir>.
set -euo pipefail
build=$(realpath "$1")
work=$2
here=$(cd "$(dirname "$0")" && pwd)
cxx=${CXX:-c++}
read -r -a extra <<<"${EXAMPLE_CXXFLAGS:-}"
strict=(-Wall -Wextra -Wshadow -Wconversion -Werror "${extra[@]}")
reader=$build/tools/log/camdeliver-log
[ -x "$reader" ] || { echo "FAIL: $reader is not built"; exit 1; }

rm -rf "$work"
mkdir -p "$work"
work=$(realpath "$work")
prefix=$work/prefix
step() { echo "== example: $*"; }

step "install into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log"

step "build examples/coordinator with ${strict[*]}"
cmake -S "$here/coordinator" -B "$work/coordinator" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="${strict[*]}" \
  -DCMAKE_EXE_LINKER_FLAGS="${extra[*]}" >"$work/build.log"
cmake --build "$work/coordinator" >>"$work/build.log" || { cat "$work/build.log"; exit 1; }

# The example's own watchdog ends a stuck run (exit 1 after a few seconds without progress);
# timeout is only the last resort.
run() {
  local name=$1
  shift
  step "run $name: camdeliver-example $*"
  local rc=0
  timeout 120 "$work/coordinator/camdeliver-example" "$@" 2>"$work/$name.log" || rc=$?
  if [ "$rc" -ne 0 ]; then
    echo "FAIL: camdeliver-example exited $rc; the end of its stderr:"
    tail -n 60 "$work/$name.log"
    exit 1
  fi
  step "camdeliver-log $name.log"
  rc=0
  "$reader" "$work/$name.log" >"$work/$name.findings" 2>&1 || rc=$?
  if [ "$rc" -ne 0 ]; then
    echo "FAIL: camdeliver-log exited $rc on the example's capture $work/$name.log:"
    cat "$work/$name.findings"
    exit 1
  fi
  grep '^verdict' "$work/$name.findings"
}
run debug --log-level debug
run verbose --log-level verbose --sensors 4 --frames 90

# Built where the install has the explorer's harness (an uninstrumented build with the tools).
explorer=$work/coordinator/camdeliver-example-explore
if [ -x "$explorer" ]; then
  # Bound 1 of the flush path is 400,000 schedules (three minutes here): it runs at bound 0
  # in CI, the drop and in-flight paths (47,000 and 78,000 schedules) at bound 1.
  step "explore the drop and in-flight paths at bound 1, the flush path at bound 0"
  timeout 600 "$explorer" --path drop --path inflight --preemptions 1 ||
    { echo "FAIL: the explored example failed"; exit 1; }
  timeout 600 "$explorer" --path flush --preemptions 0 ||
    { echo "FAIL: the explored example failed"; exit 1; }
else
  step "camdeliver-example-explore not built: the install has no explore component"
fi
echo "example checks passed"
