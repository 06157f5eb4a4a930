#!/usr/bin/env bash
# Installs what building and testing kvard needs on Debian 12 (run as root).
# Asks apt only when something is missing, so a second run costs nothing.
# Further tiers name their packages in tools/deps/*.list (one a line, # comments;
# name:armhf for the 32-bit ARM ones) and may prepare apt in tools/deps/*.pre.sh
# (e.g. a foreign architecture), which run first.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
pkgs=(build-essential cmake ninja-build pkg-config
      libgtest-dev libgmock-dev googletest libbenchmark-dev zlib1g-dev nlohmann-json3-dev
      libcairo2-dev fonts-dejavu-core scdoc man-db groff-base bash-completion
      bubblewrap faketime libfaketime util-linux procps mawk tzdata
      qemu-user g++-arm-linux-gnueabihf libc6-dev-armhf-cross
      clang libclang-rt-14-dev llvm)
for list in "$here"/deps/*.list; do
  [ -e "$list" ] || continue
  while read -r p _; do
    case $p in ''|'#'*) ;; *) pkgs+=("$p") ;; esac
  done <"$list"
done
updated=0
for pre in "$here"/deps/*.pre.sh; do
  [ -e "$pre" ] || continue
  if bash "$pre"; then :; else
    rc=$?
    # 100: the hook changed apt's sources or architectures; the package lists must be fetched anew
    [ $rc -eq 100 ] || exit $rc
    updated=2
  fi
done
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ] || [ $updated -eq 2 ]; then
  export DEBIAN_FRONTEND=noninteractive
  # One broken index (a mirror's half-synced suite) must not stop the rest:
  # what is missing after it fails at the install, naming the package.
  apt-get update -qq || echo "install-deps: some package lists failed to update; going on with what apt has"
fi
if [ ${#missing[@]} -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
