#!/usr/bin/env bash
# Unpacks the 32-bit ARM libraries that tmctl links against (cairo, fontconfig
# and what they need) from Debian's armhf packages into DIR, and prints DIR.
# apt works on lists of its own under DIR.apt, so the machine needs no armhf
# architecture in dpkg: multiarch would want every shared library at the same
# version for both architectures, which a mirror in mid-sync cannot always give.
# Kept between runs; delete DIR to fetch anew.
set -euo pipefail
dir=$(mkdir -p "$1" && cd "$1" && pwd)
state=$dir.apt
if [ ! -e "$state/done" ]; then
  rm -rf "$state" && mkdir -p "$state/lists/partial" "$state/debs"
  opts=(-o "Dir::State::Lists=$state/lists" -o APT::Architectures::=armhf -o APT::Architecture=armhf
        -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache=)
  # One broken index (of a suite in mid-sync) leaves the others usable.
  apt-get "${opts[@]}" update -qq >&2 || echo "armhf-sysroot: some armhf package lists failed; going on" >&2
  pkgs=$(apt-cache "${opts[@]}" depends --recurse --no-recommends --no-suggests --no-conflicts --no-breaks \
           --no-replaces --no-enhances libcairo2-dev libfontconfig-dev | grep -v '^ ' | grep -v '<' | sort -u)
  (cd "$state/debs" && apt-get "${opts[@]}" download -q=2 -o APT::Sandbox::User=root $pkgs) >&2
  for deb in "$state"/debs/*.deb; do dpkg-deb -x "$deb" "$dir"; done
  touch "$state/done"
fi
echo "$dir"
