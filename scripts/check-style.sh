#!/usr/bin/env bash
# Fails when a tracked C++ file is not formatted by .clang-format, when Android.bp does not
# parse or is not in bpfmt's canonical form, or when Android.bp misses a library source or a
# test source of the suites its cc_test builds.
set -uo pipefail
cd "$(dirname "$0")/.."
status=0

mapfile -t sources < <(git ls-files '*.h' '*.hpp' '*.cpp' '*.cc')
if ! clang-format --dry-run -Werror "${sources[@]}"; then
  echo "FAIL: C++ files above are not formatted; run: git ls-files '*.h' '*.cpp' | xargs clang-format -i"
  status=1
fi

# bpfmt -l exits 0 whether or not the file differs, so its output is what tells.
if ! listed=$(bpfmt -l Android.bp); then
  echo "FAIL: Android.bp does not parse"
  status=1
elif [ -n "$listed" ]; then
  echo "FAIL: Android.bp is not in canonical form; run: bpfmt -w Android.bp"
  bpfmt -d Android.bp
  status=1
fi

while IFS= read -r file; do
  [ -e "$file" ] || { echo "FAIL: Android.bp names $file, which does not exist"; status=1; }
done < <(grep -oE '"[^"]+\.(cpp|map)"' Android.bp | tr -d '"')
while IFS= read -r file; do
  grep -q "\"$file\"" Android.bp || { echo "FAIL: $file is built by CMake but not by Android.bp"; status=1; }
done < <(grep -oE 'hw/camsys/cam_deliver/[A-Za-z]+\.cpp' CMakeLists.txt; git ls-files 'tests/delivery/*.cpp' 'tests/foundation/*.cpp')

[ $status -eq 0 ] && echo "style OK: ${#sources[@]} C++ files formatted, Android.bp canonical"
exit $status
