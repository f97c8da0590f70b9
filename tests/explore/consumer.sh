#!/usr/bin/env bash
# Installs a build tree into a scratch prefix and builds a coordinator of its own against the
# installed explore component (find_package(orvcam_camdeliver COMPONENTS explore)), then runs
# it: its clean form must be exhausted at bound 2 with no finding, its faulty form found as a
# deadlock whose replay fails again.
#
#   [CXX=compiler] [CONSUMER_CXXFLAGS=flags] tests/explore/consumer.sh <build-dir> <scratch-dir>
set -euo pipefail
build=$(realpath "$1")
work=$2
here=$(cd "$(dirname "$0")" && pwd)
cxx=${CXX:-c++}

rm -rf "$work"
mkdir -p "$work"
work=$(realpath "$work")
prefix=$work/prefix
for component in camdeliver platform_host explore; do
  cmake --install "$build" --prefix "$prefix" --component "$component" >>"$work/install.log"
done
[ -f "$prefix/include/orvcam_camdeliver/Explore.h" ] || { echo "FAIL: Explore.h not installed"; exit 1; }
cmake -S "$here/consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="${CONSUMER_CXXFLAGS:-}" \
  -DCMAKE_EXE_LINKER_FLAGS="${CONSUMER_CXXFLAGS:-}" >"$work/configure.log" ||
  { cat "$work/configure.log"; exit 1; }
cmake --build "$work/build" >"$work/build.log" || { cat "$work/build.log"; exit 1; }
"$work/build/explored-coordinator"
