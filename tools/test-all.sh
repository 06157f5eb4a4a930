#!/usr/bin/env bash
# Sets up a Debian 12 machine (as root), builds kvard and runs the whole suite
# three times: on the host (with the Debian packages checked and the daemon on
# Debian's x86-64 kernel in a VM), under AddressSanitizer and UndefinedBehaviorSanitizer,
# and cross-built for 32-bit ARM (unit tests under qemu-user, the armhf package
# checked, the daemon on Debian's armmp kernel under qemu-system-arm); then the fuzz targets (clang) for a bounded time, two at a time.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
out=${KVARD_BUILD_DIR:-$top/build}
jobs=$(nproc)
bash "$top/tools/install-deps.sh"

tier() {  # name, cmake options...
  local name=$1; shift
  echo "=== $name"
  cmake -S "$top" -B "$out/$name" -G Ninja "$@" >/dev/null
  cmake --build "$out/$name" -j"$jobs"
  (cd "$out/$name" && ctest --output-on-failure -j"${ctest_jobs:-$jobs}" --timeout 600)
}

tier host
tier sanitize -DKVARD_SANITIZE=ON
KVARD_ARMHF_SYSROOT=$(bash "$top/tools/armhf-sysroot.sh" "$out/armhf-sysroot") \
  tier armhf -DCMAKE_TOOLCHAIN_FILE="$top/cmake/armhf-linux-gnueabihf.cmake"
ctest_jobs=2 tier fuzz -DKVARD_FUZZ=ON -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
echo "all tiers passed"
