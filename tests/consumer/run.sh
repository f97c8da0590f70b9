#!/usr/bin/env bash
# Installs a build tree into a temporary prefix and uses it as another project would: a client
# built with find_package() and with pkg-config under a strict consumer's warnings, every
# installed header compiled on its own, the private logging layer absent, the exports intact,
# and -Werror not handed to a project that adds this one with add_subdirectory().
#
#   [CXX=compiler] [CONSUMER_CXXFLAGS=flags] tests/consumer/run.sh <build-dir> <scratch-dir>
#
# CXX (default c++) and CONSUMER_CXXFLAGS (for example clang's -stdlib=libc++) must match the
# build tree's compiler and standard library.
set -euo pipefail
build=$(realpath "$1")
work=$2
here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(cd "$here/../.." && pwd)
cxx=${CXX:-c++}
read -r -a extra <<<"${CONSUMER_CXXFLAGS:-}"
strict=(-Wall -Wextra -Wshadow -Wconversion -Werror "${extra[@]}")
step() { echo "== consumer: $*"; }

rm -rf "$work"
mkdir -p "$work"
work=$(realpath "$work")
prefix=$work/prefix

step "install into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log"
incdir=$prefix/include/orvcam_camdeliver
lib=$(find "$prefix" -name 'liborvcam_camdeliver.so.*.*' -type f | head -n1)
[ -n "$lib" ] || { echo "FAIL: no versioned liborvcam_camdeliver.so installed"; exit 1; }
libdir=$(dirname "$lib")

step "find_package(orvcam_camdeliver 0.1) with ${strict[*]}"
cmake -S "$here" -B "$work/find-package" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="${strict[*]}" \
  -DCMAKE_EXE_LINKER_FLAGS="${extra[*]}" >"$work/find-package.log"
cmake --build "$work/find-package" >>"$work/find-package.log" || {
  cat "$work/find-package.log"; exit 1; }
"$work/find-package/camdeliver-client"

step "pkg-config orvcam_camdeliver orvcam_platform_host"
export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion orvcam_camdeliver)" = "$(pkg-config --modversion orvcam_platform_host)" ]
# shellcheck disable=SC2046
"$cxx" -std=c++17 "${strict[@]}" "$here/client.cpp" -o "$work/client-pkgconfig" \
  $(pkg-config --cflags --libs orvcam_camdeliver orvcam_platform_host) -Wl,-rpath,"$libdir"
"$work/client-pkgconfig"

step "every installed header compiles on its own with ${strict[*]}"
count=0
while IFS= read -r header; do
  echo "#include \"$header\"" | "$cxx" -std=c++17 "${strict[@]}" -fsyntax-only -I"$incdir" -x c++ - ||
    { echo "FAIL: $header"; exit 1; }
  count=$((count + 1))
done < <(cd "$incdir" && find . -name '*.h' | sed 's|^\./||' | sort)
echo "$count headers"
if find "$prefix" -name 'CamDeliverLog.h' | grep -q .; then
  echo "FAIL: the private logging layer CamDeliverLog.h was installed"
  exit 1
fi

step "exports of the installed library"
"$source_dir/tests/check_exports.sh" "$lib"

step "add_subdirectory() does not impose -Werror"
mkdir -p "$work/subdir"
cat >"$work/subdir/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.22)
project(orvcam_subdir_consumer LANGUAGES CXX)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
add_subdirectory("$source_dir" orvcam)
add_executable(client "$here/client.cpp")
target_link_libraries(client PRIVATE orvcam::camdeliver orvcam::platform_host)
CMAKE
cmake -S "$work/subdir" -B "$work/subdir/build" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_CXX_FLAGS="${extra[*]}" >"$work/subdir.log"
commands=$work/subdir/build/compile_commands.json
grep -q 'CamDeliverGuard.cpp' "$commands" || { echo "FAIL: the library is not built"; exit 1; }
if grep -q -- '-Werror' "$commands"; then
  echo "FAIL: a project that adds this one with add_subdirectory() gets -Werror"
  exit 1
fi
if grep -q 'tests/delivery\|tests/foundation' "$commands"; then
  echo "FAIL: add_subdirectory() builds the project's tests"
  exit 1
fi
echo "consumer checks passed"
