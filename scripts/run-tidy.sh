#!/usr/bin/env bash
# Runs clang-tidy (the checks of .clang-tidy, the list Android.bp's tidy_checks also names) on
# the library's and the host platform's sources, with the compile commands of a clang build.
#
#   scripts/run-tidy.sh [build-dir]      (default build/clang: cmake --preset clang first)
#
# Exit 0 when clean, 1 on a finding, 2 when the build directory has no compile commands.
set -uo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/clang}
if [ ! -f "$build/compile_commands.json" ]; then
  echo "run-tidy: $build/compile_commands.json not found; configure first: cmake --preset clang" >&2
  exit 2
fi
tidy=$(command -v clang-tidy || command -v clang-tidy-14) || {
  echo "run-tidy: clang-tidy is not installed (scripts/install-deps.sh installs it)" >&2
  exit 2
}
mapfile -t sources < <(git ls-files 'hw/camsys/cam_deliver/*.cpp' 'platform/host/*.cpp')
if ! "$tidy" -p "$build" --quiet "${sources[@]}"; then
  echo "FAIL: clang-tidy reported the findings above"
  exit 1
fi
echo "clang-tidy OK: ${#sources[@]} sources"
