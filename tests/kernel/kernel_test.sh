#!/usr/bin/env bash
# The real-kernel tier: the scenario runs twice, once in a VM on Debian's own
# kernel with its NAND simulator (run-vm.sh), once in kvard-sandbox on the
# emulated NAND, and both must end with the same published statistics and the
# same records on flash.
#
#   kernel_test.sh ARCH VM_BUILD HOST_BUILD VMCTL WORK
#
# VM_BUILD is the build whose kvard goes into the VM (a host build for amd64,
# the 32-bit ARM cross build for armhf); HOST_BUILD the host build whose
# kvard-sandbox and tmctl run the sandbox leg. WORK is emptied and keeps the
# results of both legs; downloads are kept in WORK/../cache.
set -euo pipefail
[ $# -eq 5 ] || { echo "usage: kernel_test.sh ARCH VM_BUILD HOST_BUILD VMCTL WORK" >&2; exit 2; }
arch=$1 vm_build=$2 host_build=$3 vmctl=$4 work=$5
here=$(cd "$(dirname "$0")" && pwd)
scenario=$here/scenario
export KVARD_VM_CACHE=${KVARD_VM_CACHE:-$work/../cache}
rm -rf "$work"
mkdir -p "$work"
work=$(cd "$work" && pwd)
export TZ=Europe/Berlin
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

stage() {  # BUILD DIR: the build's staging root
	DESTDIR=$2 cmake --install "$1" --prefix /usr >"$2.log" 2>&1 || { cat "$2.log"; exit 1; }
}
stage "$vm_build" "$work/vm-stage"
if [ "$host_build" -ef "$vm_build" ]; then host_stage=$work/vm-stage; else
	stage "$host_build" "$work/host-stage"
	host_stage=$work/host-stage
fi
tmctl=$host_stage/usr/bin/tmctl
sandbox=$(find "$host_stage" -name kvard-sandbox -type f -perm -u+x | head -n 1)
[ -x "$tmctl" ] && [ -n "$sandbox" ] || { echo "no tmctl or kvard-sandbox in $host_stage"; exit 1; }

# --- The VM ---------------------------------------------------------------
vm=$work/vm
bash "$here/run-vm.sh" "$arch" "$work/vm-stage" "$vmctl" "$scenario" "$vm"
cat "$vm/vm.txt"
vmout=$vm/share

# --- The sandbox ----------------------------------------------------------
# The same steps; the WAN counters that the VM's interface carried are written
# into the box's /proc/net/dev, computed from the frames of each traffic step.
box=$work/box
sb() { "$sandbox" "$@"; }
send() { sb exec "$box" -- "$tmctl" send "$@" >/dev/null; }
le() {  # VALUE BYTES: little-endian hex
	local v=$1 n=$2 i
	for ((i = 0; i < n; i++)); do printf '%02x ' $(((v >> (8 * i)) & 255)); done
}
sb init "$box" --time "@1700000000" --tz "$TZ" --mtd-size $((48 * 131072)) >/dev/null
# The chip blocks 8 and 44 of the VM are blocks 0 and 36 of its partition.
env=(--env MTDSIM_BADBLOCKS=0,36)
store=$box/var/lib/kvard/mdm
tx=0 rx=0
expected_counters=()
while read -r verb a b c _; do
	case $verb in
	'' | '#'*) continue ;;
	start)
		KVARD_MDM_DIR=$store "$tmctl" mdm set 1400 wanType=None
		sb time "$box" "@$a" >/dev/null
		sb start "$box" --wait "${env[@]}" >/dev/null
		;;
	link)
		KVARD_MDM_DIR=$store "$tmctl" mdm set 1400 wanType=DHCP
		sb time "$box" "@$a" >/dev/null
		send TM_MSG_LINK_UPDATE
		;;
	traffic)
		tx=$((tx + a * c)) rx=$((rx + b * c))
		expected_counters+=("counters $tx $rx")
		sb netdev "$box" eth0.1 "$rx" "$tx"
		;;
	wake)
		sb time "$box" "@$a" >/dev/null
		send TM_MSG_TIME_WAKE
		;;
	sim)
		send TM_MSG_SIM_INPUT --hex "$(le "$a" 4)00 00 00 00 $(le "$b" 8)$(le "$c" 8)01 00 00 00"
		send TM_MSG_SIM_WAKE
		;;
	kill)
		cp "$store/2889" "$work/box-2889.before"
		sb time "$box" "@$a" >/dev/null
		# SIGKILL to kvard; stop returns once the whole box has ended, so that it can start again.
		sb stop "$box" KILL >/dev/null
		cp "$box/stdout" "$work/box-stdout.1"
		sb start "$box" --wait "${env[@]}" >/dev/null
		;;
	publish)
		sb time "$box" "@$a" >/dev/null
		send TM_MSG_WRITE_STATISTIC
		;;
	esac
done <"$scenario"
cp "$box/stdout" "$work/box-stdout.2"
sb stop "$box" KILL >/dev/null || true

# --- The comparison -------------------------------------------------------
# Real traffic: the kernel counted exactly the frames that were sent.
got=$(grep '^counters [0-9]' "$vmout/log" || true)
want=$(printf '%s\n' "${expected_counters[@]}")
[ "$got" = "$want" ] || fail "WAN counters in the VM: got [$got], want [$want]"

# The published object, field by field.
diff -u "$store/2889" "$vmout/2889" >"$work/2889.diff" ||
	{ cat "$work/2889.diff"; fail "published statistics differ (sandbox, VM)"; }
grep -q '^thismonth_total=[1-9]' "$vmout/2889" || fail "the VM published no month total"

# The rebuild after the kill restored the volumes that were published before it.
volumes() { grep -E '^(today|thisweek|thismonth)_(upload|download|total)=' "$1"; }
[ "$(volumes "$vmout/2889.before")" = "$(volumes "$vmout/2889")" ] ||
	fail "the VM's volumes after the restart differ from those before the kill"

# The rings, record by record: the sandbox's image file and the partition as
# the VM's driver read it back.
"$tmctl" flash decode "$box/sandbox/mtd.img" --csv >"$work/box-records.csv"
"$tmctl" flash decode "$vmout/tm.img" --csv >"$work/vm-records.csv"
diff -u "$work/box-records.csv" "$work/vm-records.csv" >"$work/records.diff" ||
	{ cat "$work/records.diff"; fail "flash records differ (sandbox, VM)"; }
# Both bad blocks were walked over: no record in partition blocks 0 and 36
# (pages 0-63 and 2304-2367), and records behind each.
awk -F, 'NR > 1 && ($2 < 64 || ($2 >= 2304 && $2 < 2368)) {exit 1}' "$work/vm-records.csv" ||
	fail "a record lies in a bad block"
grep -q '^minute,64,' "$work/vm-records.csv" || fail "no minute record right behind the bad block"
grep -q '^half-day,2368,' "$work/vm-records.csv" || fail "no half-day record right behind the bad block"

# The driver's answers, as docs/mtdsim.md tells them ("The real kernel's NAND").
diff -u "$here/driver-answers" "$vmout/driver" >"$work/driver.diff" ||
	{ cat "$work/driver.diff"; fail "the MTD driver answered otherwise than documented"; }

# The daemon said the same in both places, apart from the supervisor's lines.
grep -v '^kvard supervisor:' "$vmout/kvard.out" >"$work/vm-stdout"
cat "$work/box-stdout.1" "$work/box-stdout.2" >"$work/box-stdout"
diff -u "$work/box-stdout" "$work/vm-stdout" >"$work/stdout.diff" ||
	{ head -n 20 "$work/stdout.diff"; fail "kvard's output differs (sandbox, VM)"; }

if [ $failures -eq 0 ]; then
	echo "kernel tier ($arch): statistics, $(($(wc -l <"$work/vm-records.csv") - 1)) flash records and output agree"
	echo "1 passed, 0 failed"
else
	echo "kernel tier ($arch): $failures check(s) failed; results in $work"
	exit 1
fi
