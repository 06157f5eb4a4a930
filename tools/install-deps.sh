#!/usr/bin/env bash
# Installs what building and testing kvard needs on Debian 12 (run as root).
# Asks apt only when something is missing, so a second run costs nothing.
set -euo pipefail
pkgs=(build-essential cmake ninja-build pkg-config
      libgtest-dev libgmock-dev googletest libbenchmark-dev zlib1g-dev nlohmann-json3-dev
      libcairo2-dev fonts-dejavu-core scdoc man-db groff-base bash-completion
      bubblewrap faketime libfaketime util-linux procps mawk tzdata
      qemu-user g++-arm-linux-gnueabihf libc6-dev-armhf-cross
      clang libclang-rt-14-dev llvm)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
