#!/usr/bin/env bash
# Boots Debian's own kernel under qemu with an initramfs made here from
# busybox-static and the staging root of the build, runs the scenario against
# the kernel's NAND simulator (init.sh), and leaves the results in OUT.
#
#   run-vm.sh ARCH STAGE VMCTL SCENARIO OUT
#
# ARCH is amd64 or armhf; STAGE a staging root holding usr/sbin/kvard; VMCTL
# the guest helper, linked statically for ARCH. Debian packages are fetched
# with apt-get download into $KVARD_VM_CACHE (default: OUT/../cache) and kept.
# Exit status 0 when the VM ran the scenario to its end (OUT/status is "ok").
set -euo pipefail
[ $# -eq 5 ] || { echo "usage: run-vm.sh ARCH STAGE VMCTL SCENARIO OUT" >&2; exit 2; }
arch=$1 stage=$2 vmctl=$3 scenario=$4 out=$5
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$out"
out=$(cd "$out" && pwd)
cache=${KVARD_VM_CACHE:-$out/../cache}
mkdir -p "$cache"
cache=$(cd "$cache" && pwd)

# The chip: 2048-byte pages and 128 KiB blocks, 2^6 = 64 blocks (8 MiB).
# The "tm" partition takes chip blocks 8 to 55; chip blocks 8 and 44 are bad,
# so the first block of each ring is bad and the daemon has to walk over it.
# Blocks 56 and 57 (good) and 60 (bad) are where the driver's answers are probed.
nand_params="id_bytes=0x20,0xf1,0x00,0x15 overridesize=6 badblocks=8,44,60"
tm_offset=$((8 * 131072)) tm_size=$((48 * 131072))
zone=Europe/Berlin

case $arch in
amd64)
	image_meta=linux-image-amd64 headers_meta=linux-headers-amd64 pkgarch=amd64
	kmake=() triplet=x86_64-linux-gnu sysroot=/
	qemu=(qemu-system-x86_64 -m 256)
	accels=(tcg)
	# KVM where it is usable; a host whose KVM cannot run the guest gets TCG (see boot() below).
	[ -w /dev/kvm ] && accels=(kvm tcg)
	console=ttyS0 bus_modules=(virtio_pci)
	share_dev=(-device virtio-9p-pci,fsdev=results,mount_tag=results)
	;;
armhf)
	image_meta=linux-image-armmp headers_meta=linux-headers-armmp pkgarch=armhf
	kmake=(ARCH=arm CROSS_COMPILE=arm-linux-gnueabihf-) triplet=arm-linux-gnueabihf sysroot=/usr/arm-linux-gnueabihf
	qemu=(qemu-system-arm -M virt -cpu cortex-a15 -m 256)
	accels=(tcg)
	console=ttyAMA0 bus_modules=(virtio_mmio)
	# The virt board's virtio-mmio slots need no PCI host driver.
	share_dev=(-device virtio-9p-device,fsdev=results,mount_tag=results)
	;;
*) echo "run-vm.sh: unknown ARCH $arch" >&2; exit 2 ;;
esac

die() { echo "run-vm.sh: $*" >&2; exit 1; }
# apt for the target's packages: the system's own for amd64; for armhf, apt with
# lists of the armhf archive of its own, kept in the cache, so that the machine
# need not carry armhf as a dpkg architecture. Such an update passes over an
# index that fails to download, as long as the packages are found in the others.
tapt=()
if [ "$pkgarch" != "$(dpkg --print-architecture)" ]; then
	lists=$cache/apt-lists-$pkgarch
	tapt=(-o "Dir::State::Lists=$lists" -o "APT::Architectures::=$pkgarch" -o "APT::Architecture=$pkgarch"
		-o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache=)
	if [ ! -d "$lists" ]; then
		mkdir -p "$lists/partial"
		apt-get "${tapt[@]}" update -qq >&2 || true
	fi
fi
apt_() {  # t|h COMMAND ARGS...: COMMAND (apt-get, apt-cache) on the target's (t) or the system's (h) lists
	local kind=$1 cmd=$2
	shift 2
	if [ "$kind" = t ]; then "$cmd" "${tapt[@]}" "$@"; else "$cmd" "$@"; fi
}
update() { apt_ "$1" apt-get update -qq >&2 || true; }
# The concrete package a metapackage names ("linux-image-amd64" -> "linux-image-6.1.0-56-amd64").
depends_of() {  # t|h PACKAGE
	apt_ "$1" apt-cache depends "$2" 2>/dev/null | awk '/^  (PreDepends|Depends):/ {print $2}' | tr -d '<>' | cut -d: -f1
}
version_of() {  # t|h PACKAGE
	apt_ "$1" apt-cache show --no-all-versions "$2" 2>/dev/null | sed -n 's/^Version: //p' | head -n 1
}
fetch() {  # t|h PACKAGE ARCH [VERSION]: download into the cache unless there, print the .deb
	local kind=$1 name=$2 arch=$3 ver=${4:-} deb
	[ -n "$ver" ] || ver=$(version_of "$kind" "$name")
	[ -n "$ver" ] || die "apt knows no $name"
	deb=$cache/${name}_${ver/:/%3a}_${arch}.deb
	if [ ! -e "$deb" ]; then
		(cd "$cache" && apt_ "$kind" apt-get download -q=2 -o APT::Sandbox::User=root "$name=$ver") >&2 || {
			# Package lists older than the archive name versions that are gone: fetch them anew once.
			update "$kind"
			(cd "$cache" && apt_ "$kind" apt-get download -q=2 -o APT::Sandbox::User=root "$name=$ver") >&2
		} || die "apt-get download $name=$ver ($arch)"
	fi
	[ -e "$deb" ] || die "apt-get download $name=$ver gave no $deb"
	echo "$deb"
}

resolve() {
	kimage=$(depends_of t "$image_meta" | grep '^linux-image-' | head -n 1)
	kheaders=$(depends_of t "$headers_meta" | grep '^linux-headers-' | head -n 1)
}
resolve
if [ -z "$kimage" ] || [ -z "$kheaders" ]; then update t; resolve; fi
[ -n "$kimage" ] && [ -n "$kheaders" ] || die "apt knows no $image_meta/$headers_meta for $pkgarch"
kver=${kimage#linux-image-}

root=$cache/root-$kver
if [ ! -e "$root/.complete" ]; then
	rm -rf "$root"
	mkdir -p "$root"
	hcommon=$(depends_of t "$kheaders" | grep -- '-common$' | head -n 1)
	kbuild=$(depends_of t "$kheaders" | grep '^linux-kbuild-' | head -n 1)
	hver=$(version_of t "$kheaders")
	dpkg-deb -x "$(fetch t "$kimage" "$pkgarch")" "$root"
	dpkg-deb -x "$(fetch t "$kheaders" "$pkgarch")" "$root"
	dpkg-deb -x "$(fetch t "$hcommon" all "$hver")" "$root"
	dpkg-deb -x "$(fetch t busybox-static "$pkgarch")" "$root"
	# The host tools of kbuild are always the build machine's (amd64), of the headers' own version.
	dpkg-deb -x "$(fetch h "$kbuild" amd64 "$hver")" "$root"
	# The headers' Makefile includes the common part by its installed path.
	sed -i "s#^include /usr/src/#include $root/usr/src/#" "$root/usr/src/linux-headers-$kver/Makefile"
	depmod -b "$root" "$kver"
	touch "$root/.complete"
fi
kdir=$root/lib/modules/$kver

# The helper module that names the partition, built against this kernel's headers.
rm -rf "$out/tmpart"
cp -r "$here/tmpart" "$out/tmpart"
make -s -C "$root/usr/src/linux-headers-$kver" "${kmake[@]}" M="$out/tmpart" modules >"$out/tmpart.log" 2>&1 ||
	{ cat "$out/tmpart.log" >&2; die "building tmpart.ko"; }

# The initramfs.
ir=$out/initramfs
rm -rf "$ir"
mkdir -p "$ir"/{bin,sbin,usr/sbin,usr/bin,etc/kvard-vm/store,lib/modules,proc,sys,dev,tmp,var,data}
cp "$root/bin/busybox" "$ir/bin/busybox"
ln -s busybox "$ir/bin/sh"
install -m 755 "$here/init.sh" "$ir/init"
install -m 755 "$vmctl" "$ir/bin/vmctl"
install -m 755 "$stage/usr/sbin/kvard" "$ir/usr/sbin/kvard"
mkdir -p "$ir/etc/init.d"
install -m 755 "$here/../../init/kvard.init" "$ir/etc/init.d/kvard"
mkdir -p "$ir/usr/share/zoneinfo/${zone%/*}"
cp "/usr/share/zoneinfo/$zone" "$ir/usr/share/zoneinfo/$zone"

# kvard's shared libraries (the C library only, by design), taken from the target's root.
copy_libs() {  # ELF
	local need lib
	for need in $(readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p') \
		$(readelf -l "$1" | sed -n 's/.*interpreter: \(.*\)\]/\1/p'); do
		need=${need##*/}
		[ -e "$ir/lib/$triplet/$need" ] && continue
		lib=""
		for d in "$sysroot/lib/$triplet" "$sysroot/usr/lib/$triplet" "$sysroot/lib" "$sysroot/lib64"; do
			[ -e "$d/$need" ] && { lib=$d/$need; break; }
		done
		[ -n "$lib" ] || die "no $need for $1 in $sysroot"
		mkdir -p "$ir/lib/$triplet" "$ir/lib64"
		cp -L "$lib" "$ir/lib/$triplet/$need"
		ln -sf "$triplet/$need" "$ir/lib/$need"
		ln -sf "../lib/$triplet/$need" "$ir/lib64/$need"
		copy_libs "$lib"
	done
}
copy_libs "$stage/usr/sbin/kvard"

# Modules with everything they need, in an order in which each finds its dependencies loaded.
declare -A loaded=()
order=()
add_module() {  # path relative to lib/modules/VER
	local m=$1 dep
	[ -n "${loaded[$m]:-}" ] && return
	for dep in $(sed -n "s#^$m: *##p" "$kdir/modules.dep"); do add_module "$dep"; done
	loaded[$m]=1
	order+=("$m")
}
for name in "${bus_modules[@]}" nandsim veth 9p 9pnet_virtio; do
	path=$(grep -E "(^|/)$name\.ko:" "$kdir/modules.dep" | cut -d: -f1 || true)
	if [ -z "$path" ]; then
		grep -qE "/$name\.ko$" "$kdir/modules.builtin" || die "no module $name in $kver"
		continue
	fi
	add_module "$path"
done
: >"$ir/etc/kvard-vm/modules"
for m in "${order[@]}"; do
	cp "$kdir/$m" "$ir/lib/modules/"
	params=""
	[ "${m##*/}" = nandsim.ko ] && params=$nand_params
	echo "${m##*/} $params" >>"$ir/etc/kvard-vm/modules"
done
cp "$out/tmpart/tmpart.ko" "$ir/lib/modules/"
echo "tmpart.ko master=0 offset=$tm_offset size=$tm_size" >>"$ir/etc/kvard-vm/modules"

# The data-model store of a router in router mode whose WAN port is eth0; the
# scenario's link step makes it a DHCP WAN.
s=$ir/etc/kvard-vm/store
echo "operationMode=RT" >"$s/2700"
echo "wanType=None" >"$s/1400"
printf 'ifName=eth0\nisUpstream=1\n' >"$s/1152.1"
printf 'ifName=eth1\nisUpstream=0\n' >"$s/1152.2"
echo "status=Synchronized" >"$s/1045"
printf '%s\n' traffic_on=true volcontrl=true "contrl_type=No limit" volume_monthly_limit=0 round_up_volume=0 \
	timecontrl=false conntime_monthly_limit=0 day=1 hour=0 min=0 ampm_sel=false counter=0 mark=0 led_on=false \
	block_on=false markStatus=0 >"$s/2888"
: >"$s/2889"
printf 'TZ=%s\nprobe_good=56\nprobe_bad=60\n' "$zone" >"$ir/etc/kvard-vm/settings"
cp "$scenario" "$ir/etc/kvard-vm/scenario"

(cd "$ir" && find . | LC_ALL=C sort | cpio -o -H newc --quiet) >"$out/initramfs.cpio"

share=$out/share
# With KVM the kernel prints its banner within a second. Some hosts offer a
# /dev/kvm on which the guest never gets that far (nested virtualisation without
# the CPU features the kernel needs): such a boot is given up after 10 s and the
# VM starts again under TCG.
boot() {  # ACCEL
	local pid i
	rm -rf "$share" && mkdir -p "$share"
	timeout 600 "${qemu[@]}" -accel "$1" -smp 1 -nographic -no-reboot -nic none \
		-kernel "$root/boot/vmlinuz-$kver" -initrd "$out/initramfs.cpio" \
		-append "console=$console panic=-1 ipv6.disable=1" \
		-fsdev "local,id=results,path=$share,security_model=none" "${share_dev[@]}" \
		</dev/null >"$out/console.log" 2>&1 &
	pid=$!
	if [ "$1" = kvm ]; then
		for i in $(seq 100); do
			grep -q 'Linux version\|kvard-vm' "$out/console.log" && break
			kill -0 $pid 2>/dev/null || break
			sleep 0.1
		done
		if ! grep -q 'Linux version\|kvard-vm' "$out/console.log"; then
			kill $pid 2>/dev/null || true
			wait $pid || true
			echo "kvm: no kernel banner within 10 s" >>"$out/vm.txt"
			return 125
		fi
	fi
	wait $pid
}
: >"$out/vm.txt"
start=$(date +%s.%N)
for accel in "${accels[@]}"; do
	rc=0
	boot "$accel" || rc=$?
	[ $rc -eq 125 ] || break
done
echo "vm: $arch $kver, $accel, qemu status $rc, $(awk -v a="$start" -v b="$(date +%s.%N)" 'BEGIN { printf "%.1f", b - a }') s" >>"$out/vm.txt"
status=$(cat "$share/status" 2>/dev/null || echo "no status (see $out/console.log)")
[ "$status" = ok ] || { tail -n 40 "$out/console.log" >&2; die "VM: $status"; }
