#!/usr/bin/env bash
# The real-kernel tier's 32-bit ARM leg downloads Debian's armmp kernel and
# armhf busybox-static: apt has to know the armhf architecture for that.
# Exit 100 tells install-deps.sh that the package lists must be fetched anew.
set -euo pipefail
if ! dpkg --print-foreign-architectures | grep -qx armhf; then
  dpkg --add-architecture armhf
  exit 100
fi
