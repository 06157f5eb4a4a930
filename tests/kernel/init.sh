#!/bin/sh
# PID 1 of the test VM: brings up the kernel's NAND simulator with a "tm"
# partition, a WAN interface and the data-model store, runs the scenario
# against the unchanged kvard, and leaves the results in the shared folder.
# Whatever happens, the VM powers off at the end; /results/status says how it went.
export PATH=/bin:/sbin:/usr/bin:/usr/sbin
/bin/busybox --install -s /bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mkdir -p /tmp /var /data /run /results
mount -t tmpfs tmpfs /tmp
mount -t tmpfs tmpfs /var
mount -t tmpfs tmpfs /run
mkdir -p /var/run

out=/tmp/results
mkdir -p $out
log() { echo "kvard-vm: $*"; echo "$*" >>$out/log; }
finish() {  # STATUS
	log "status: $1"
	[ -f /tmp/kvard.out ] && cp /tmp/kvard.out $out/kvard.out
	if grep -q " /results " /proc/mounts; then
		cp $out/* /results/ 2>/dev/null
		echo "$1" >/results/status
		sync
		umount /results
	else
		# Without the shared folder the serial console carries the verdict.
		echo "kvard-vm: no shared folder"
	fi
	poweroff -f
}
fail() { log "FAILED: $*"; finish "failed: $*"; }

# Modules in dependency order, as the host wrote them: "FILE [PARAMS...]".
while read -r file params; do
	[ -n "$file" ] || continue
	# shellcheck disable=SC2086
	insmod "/lib/modules/$file" $params || fail "insmod $file $params"
done </etc/kvard-vm/modules

mount -t 9p -o trans=virtio,version=9p2000.L results /results || fail "mount of the shared folder"
. /etc/kvard-vm/settings
cat /proc/mtd >$out/proc-mtd
grep -q '"tm"' /proc/mtd || fail "no partition tm in /proc/mtd"
dev=$(awk -F: '/"tm"/ {print $1}' /proc/mtd)
[ -c /dev/$dev ] || fail "no device node /dev/$dev"

# An initramfs has its loopback down, and kvard binds 127.0.0.1.
ip link set lo up || fail "lo up"
# The WAN interface the daemon derives from the store ("eth0" marked upstream,
# a DHCP WAN: eth0.1), one end of a veth pair whose other end plays the ISP.
# (busybox's ip names no peer: the kernel calls it veth0, and it is renamed.)
ip link add eth0.1 type veth || fail "veth pair"
ip link set veth0 name isp || fail "naming the veth peer"
ip link set eth0.1 up && ip link set isp up || fail "WAN up"
echo eth0 >/tmp/WanPorts

store=/var/lib/kvard/mdm
mkdir -p $store
cp /etc/kvard-vm/store/* $store/
echo "localTimeZone=$TZ" >>$store/1045
# What the start script hands to kvard: its zone, and where its output goes.
mkdir -p /etc/default
printf 'TZ=%s\nKVARD_STDOUT=/tmp/kvard.out\n' "$TZ" >/etc/default/kvard

start_kvard() {
	# The system's own start script: its supervisor starts kvard again when it dies.
	/etc/init.d/kvard start >>$out/init.log 2>&1 || fail "/etc/init.d/kvard start"
}
kvard_pid() { cat /var/run/kvard.pid 2>/dev/null; }

tx=$(cat /sys/class/net/eth0.1/statistics/tx_bytes)
rx=$(cat /sys/class/net/eth0.1/statistics/rx_bytes)
log "counters at start: $tx $rx"

while read -r verb a b c _; do
	case $verb in
	'' | '#'*) continue ;;
	start)
		vmctl settime "$a" || fail "settime"
		start_kvard
		vmctl waitport 60 || fail "kvard did not bind its port"
		log "kvard started, pid $(kvard_pid)"
		;;
	link)
		vmctl store $store 1400 wanType=DHCP || fail "writing the WAN connection"
		r=$(vmctl step "$a" 3) || fail "link update at $a"
		log "link $a: $r"
		;;
	traffic)
		vmctl frames eth0.1 "$a" "$c" || fail "frames out"
		vmctl frames isp "$b" "$c" || fail "frames in"
		log "counters $(cat /sys/class/net/eth0.1/statistics/tx_bytes) $(cat /sys/class/net/eth0.1/statistics/rx_bytes)"
		;;
	wake)
		r=$(vmctl step "$a" 7) || fail "wake at $a"
		log "wake $a: $r"
		;;
	sim)
		r=$(vmctl sim "$a" "$b" "$c") || fail "simulated step at $a"
		log "sim $a: $r"
		;;
	kill)
		cp $store/2889 $out/2889.before
		vmctl settime "$a" || fail "settime"
		old=$(kvard_pid)
		[ -n "$old" ] || fail "no kvard to kill"
		kill -9 "$old"
		i=0
		while :; do
			new=$(kvard_pid)
			[ -n "$new" ] && [ "$new" != "$old" ] && vmctl waitport 1 2>/dev/null && break
			i=$((i + 1))
			[ $i -lt 600 ] || fail "kvard was not started again"
			usleep 100000
		done
		log "kvard killed ($old), running again ($new)"
		;;
	publish)
		r=$(vmctl step "$a" 6) || fail "publication at $a"
		log "publish $a: $r"
		;;
	*) fail "unknown step $verb" ;;
	esac
done </etc/kvard-vm/scenario

cp $store/2889 $out/2889
# The partition as the driver reads it back.
dd if=/dev/$dev of=$out/tm.img bs=131072 2>>$out/log || fail "reading /dev/$dev"
# How the driver answers, on the chip's blocks behind the partition (see settings).
chip=$(awk -F: '/"NAND simulator partition 0"/ {print $1}' /proc/mtd)
vmctl probe /dev/$chip $probe_good $probe_bad >$out/driver 2>&1 || fail "probing /dev/$chip"
finish ok
