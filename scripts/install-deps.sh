#!/usr/bin/env bash
# Installs the Debian packages the build, the tests, the benchmarks and the simulator need,
# and the clang toolchain (clang, libc++, clang-tidy) of the clang preset.
# Safe to run again; does nothing when everything is there.
set -euo pipefail
packages=(cmake ninja-build g++ binutils googletest libgtest-dev libgmock-dev libbenchmark-dev
          nlohmann-json3-dev libcli11-dev zlib1g-dev pkg-config clang-format blueprint-tools python3
          clang libc++-dev libc++abi-dev clang-tidy)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update
$sudo apt-get install -y --no-install-recommends "${missing[@]}"
