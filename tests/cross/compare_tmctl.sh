#!/usr/bin/env bash
# The 32-bit ARM tmctl, run under qemu-user, must print byte for byte what the
# host's prints, with the same exit status: decoding flash, rebuilding the
# history and charting go through time values, sizes and offsets whose width
# differs between the two (long, time_t, off_t).
# Usage: compare_tmctl.sh ARM_TMCTL HOST_TMCTL SYSROOT FIXTURES
set -uo pipefail
arm=$1 host=$2 root=$3 fixtures=$4
qemu=(qemu-arm -L "$root" -E "LD_LIBRARY_PATH=$root/usr/lib/arm-linux-gnueabihf:$root/lib/arm-linux-gnueabihf:/usr/arm-linux-gnueabihf/lib")
work=$(mktemp -d) && trap 'rm -rf "$work"' EXIT
golden="$fixtures/golden-tm.img --page-size 512 --block-size 2048"
settings="--reset-day 27 --reset-hour 6 --reset-minute 30"
# A partition of 6 MiB, erased but for the fixture's pages at its start.
big=$work/big.img
head -c 6291456 /dev/zero | tr '\0' '\377' >"$big"
dd if="$fixtures/golden-tm.img" of="$big" conv=notrunc status=none
cases=(
  "flash decode $golden --json"
  "flash decode $golden --csv"
  "flash decode $golden"
  "history $golden $settings --json --at 2026-03-01_00:00:00"
  "history $golden $settings --csv --at 2026-03-01_00:00:00"
  "history $golden $settings --at 2026-03-01_00:00:00"
  "flash decode $big --json"
  "flash decode $work/missing.img"
  "history $golden --reset-day 40"
)
fail=0
for c in "${cases[@]}"; do
  read -r -a args <<<"$c"
  args=("${args[@]//_/ }")
  TZ=Europe/Berlin KVARD_MDM_DIR=$work/none "${qemu[@]}" "$arm" "${args[@]}" >"$work/arm" 2>&1; a=$?
  TZ=Europe/Berlin KVARD_MDM_DIR=$work/none "$host" "${args[@]}" >"$work/host" 2>&1; h=$?
  if [ $a -ne $h ] || ! cmp -s "$work/arm" "$work/host"; then
    echo "FAIL: tmctl $c: armhf exit $a, host exit $h"; diff "$work/arm" "$work/host" | head -5; fail=1
  else
    echo "ok: tmctl $c (exit $h, $(wc -c <"$work/host") bytes)"
  fi
done
exit $fail
