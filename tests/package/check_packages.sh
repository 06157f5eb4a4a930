#!/usr/bin/env bash
# Makes the Debian packages of a build with cpack and checks what a router's
# root file system and a developer's machine would get from them: the files and
# where they lie, the architecture, the dependencies, and that the daemon needs
# the C library only. Prints the stripped daemon's size.
# Usage: check_packages.sh BUILD_DIR ARCH VERSION COMPONENT... (daemon, tools)
set -uo pipefail
build=$1 arch=$2 version=$3; shift 3
components=" $* "
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

out=$build/packages
rm -rf "$out"
if ! (cd "$build" && cpack -G DEB --config CPackConfig.cmake) >"$build/cpack.log" 2>&1; then
    cat "$build/cpack.log"
    echo "FAIL: cpack"
    exit 1
fi

# field DEB NAME: one control field's value
field() { dpkg-deb --field "$1" "$2"; }
# files DEB: the regular files and links, one path a line without the leading "."
files() { dpkg-deb --contents "$1" | awk '$1 !~ /^d/ { sub(/^\./, "", $6); print $6 }' | sort; }
# has LIST PATH...: every PATH is in LIST
has() { local list=$1 p; shift; for p; do grep -qxF "$p" <<<"$list" || fail "$deb lacks $p"; done; }
# lacks LIST PATTERN: no path of LIST matches PATTERN
lacks() { local hit; hit=$(grep -E "$2" <<<"$1") && fail "$deb holds what is not its own: $(tr '\n' ' ' <<<"$hit")"; }

machine=$(case $arch in amd64) echo X86-64 ;; armhf) echo ARM ;; *) echo "?" ;; esac)
elf_check() {  # FILE: built for ARCH, stripped; prints NEEDED names
    readelf -h "$1" | grep -q "Machine: *.*$machine" || fail "$1 is not built for $arch: $(readelf -h "$1" | grep Machine)"
    readelf -S "$1" | grep -q '\.symtab' && fail "$1 is not stripped"
    readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'
}

deb=$out/kvard_${version}_${arch}.deb
if [ ! -f "$deb" ]; then
    fail "no $deb; cpack made: $(ls "$out")"
else
    [ "$(field "$deb" Package)" = kvard ] || fail "$deb: Package $(field "$deb" Package)"
    [ "$(field "$deb" Version)" = "$version" ] || fail "$deb: Version $(field "$deb" Version)"
    [ "$(field "$deb" Architecture)" = "$arch" ] || fail "$deb: Architecture $(field "$deb" Architecture)"
    depends=$(field "$deb" Depends)
    [[ $depends =~ ^libc6\ \(\>=\ [0-9][0-9.]*\)$ ]] || fail "$deb: Depends '$depends', not the C library alone"
    list=$(files "$deb")
    has "$list" /usr/sbin/kvard /usr/share/man/man8/kvard.8 /usr/share/doc/kvard/README.md \
        /usr/share/doc/kvard/protocol.md /usr/share/doc/kvard/store.md
    lacks "$list" '^/usr/(bin|libexec|lib/kvard)/|/man1/|bash-completion'
    # An administrator's changes under /etc survive upgrades only in conffiles.
    etc=$(grep '^/etc/' <<<"$list")
    conffiles=$(dpkg-deb --ctrl-tarfile "$deb" | tar -xOf - ./conffiles 2>/dev/null | sort)
    [ "$conffiles" = "$etc" ] || fail "$deb: conffiles '$(tr '\n' ' ' <<<"$conffiles")', files in /etc '$(tr '\n' ' ' <<<"$etc")'"
    dir=$(mktemp -d)
    dpkg-deb --extract "$deb" "$dir"
    needed=$(elf_check "$dir/usr/sbin/kvard")
    [ "$needed" = libc.so.6 ] || fail "kvard needs $(tr '\n' ' ' <<<"$needed"), not libc.so.6 alone"
    echo "kvard $version $arch: $(stat -c %s "$dir/usr/sbin/kvard") bytes stripped; Depends: $depends"
    rm -rf "$dir"
fi

deb=$out/kvard-tools_${version}_${arch}.deb
if [[ $components != *" tools "* ]]; then
    [ -e "$deb" ] && fail "$deb was made although the build has no tools"
elif [ ! -f "$deb" ]; then
    fail "no $deb; cpack made: $(ls "$out")"
else
    [ "$(field "$deb" Architecture)" = "$arch" ] || fail "$deb: Architecture $(field "$deb" Architecture)"
    depends=$(field "$deb" Depends)
    for want in "kvard (= $version)" "libcairo2" "libc6"; do
        [[ ", $depends," == *", $want"[\ ,]* ]] || fail "$deb: Depends '$depends' lacks $want"
    done
    [[ $depends == *kvard-tools* ]] && fail "$deb depends on itself: $depends"
    recommends=$(field "$deb" Recommends)
    [ "$recommends" = "bubblewrap, libfaketime" ] || fail "$deb: Recommends '$recommends'"
    [ "$(field "$deb" Suggests)" = lighttpd ] || fail "$deb: Suggests '$(field "$deb" Suggests)'"
    list=$(files "$deb")
    has "$list" /usr/bin/tmctl /usr/bin/kvard-sandbox /usr/libexec/kvard/sandbox-helper \
        /usr/lib/kvard/libmtdsim.so /usr/share/man/man1/tmctl.1 /usr/share/man/man1/kvard-sandbox.1 \
        /usr/share/bash-completion/completions/tmctl /usr/share/bash-completion/completions/kvard-sandbox \
        /usr/lib/kvard/cgi-bin/tm.cgi /usr/share/kvard/www/index.html /usr/share/kvard/www/tm.css \
        /usr/share/kvard/www/tm.js
    lacks "$list" '^/usr/sbin/|/man8/|^/usr/share/doc/'
    dir=$(mktemp -d)
    dpkg-deb --extract "$deb" "$dir"
    for f in usr/bin/tmctl usr/bin/kvard-sandbox usr/libexec/kvard/sandbox-helper usr/lib/kvard/libmtdsim.so \
             usr/lib/kvard/cgi-bin/tm.cgi; do
        elf_check "$dir/$f" >/dev/null
    done
    rm -rf "$dir"
    echo "kvard-tools $version $arch: Depends: $depends"
fi

[ $failures -eq 0 ] || { echo "$failures failure(s)"; exit 1; }
echo "packages of $arch checked"
