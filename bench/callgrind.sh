#!/bin/bash
# Instructions (valgrind's callgrind) and system calls (strace) of the
# installed kvard in the box, per event:
#   wake    a plain wake: nothing to close, the clock where it was
#   minute  a wake that closes a busy minute: a flash page and a publication
#   start   a start on full flash rings, up to the first wait for a datagram
# and the host rebuild of full rings against a bare loop of the same kernel
# calls (rebuild_bench). The fake clock the box preloads (libfaketime) is not
# kvard: its instructions, and the calls it makes to read its clock file, are
# shown apart and left out of kvard's figures; the emulated NAND is counted.
#
# Builds BUILD (default build/host, or $KVARD_BUILD_DIR) and installs it into
# BUILD/stage. KVARD_PREFIX names another installed tree for the box; then
# only the rebuild benchmark is built in BUILD. Needs root, valgrind, strace and
# python3 (tools/deps/bench.list).
#   bash bench/callgrind.sh [WAKES]     (default 20 measured wakes per kind)
set -euo pipefail
cd "$(dirname "$0")/.."
wakes=${1:-20}
build=${KVARD_BUILD_DIR:-build/host}
cmake -S . -B "$build" -G Ninja >/dev/null
if [[ -n ${KVARD_PREFIX:-} ]]; then
    prefix=$KVARD_PREFIX
    cmake --build "$build" --target rebuild_bench >/dev/null
else
    cmake --build "$build" >/dev/null
    cmake --install "$build" --prefix "$build/stage" >/dev/null
    prefix=$PWD/$build/stage
fi
sandbox=$prefix/bin/kvard-sandbox
sum=$PWD/bench/callgrind_sum.py
for tool in valgrind strace python3; do
    command -v "$tool" >/dev/null || { echo "callgrind.sh: $tool is not installed" >&2; exit 1; }
done

work=$(mktemp -d "${KVARD_SANDBOX_TMPDIR:-/dev/shm}/kvard-callgrind-XXXXXX")
boxes=()
cleanup() {
    for box in "${boxes[@]}"; do "$sandbox" stop "$box" >/dev/null 2>&1 || true; done
    rm -rf "$work"
}
trap cleanup EXIT

readonly warmup=3 clock=/.sandbox/clock wan=eth0.1

# A fresh box: the seeded router (WAN on eth0), UTC; KIND start gets the full rings.
fresh() {
    local box=$1 kind=$2
    boxes+=("$box")
    if [[ $kind == start ]]; then
        "$sandbox" init "$box" --time "2026-03-10 11:59:30" --tz Europe/Berlin >/dev/null
        "$build/bench/rebuild_bench" --write-image="$box/sandbox/mtd.img"
        rm -f "$box/sandbox/mtd.img.pages"
    else
        "$sandbox" init "$box" --time "2026-03-10 10:00:00" --tz UTC >/dev/null
    fi
    "$sandbox" netdev "$box" "$wan" 5000000 120000 >/dev/null
}

wake() {
    "$sandbox" exec "$1" -- tmctl send TM_MSG_TIME_WAKE >/dev/null
}

# The clock a minute on, a minute's traffic, a wake.
minute() {
    local box=$1 n=$2
    "$sandbox" time "$box" +1m >/dev/null
    "$sandbox" netdev "$box" "$wan" $((5000000 + n * 3000000)) $((120000 + n * 250000)) >/dev/null
    wake "$box"
}

# KIND COUNT DIR TOOL...: kvard under TOOL in a fresh box, the warm-up wakes
# (minute closes for KIND minute), a pause for the store's files to settle,
# COUNT wakes of KIND, stop.
session() {
    local kind=$1 count=$2 box=$3
    shift 3
    fresh "$box" "$kind"
    "$sandbox" start "$box" --wait --timeout 300 -- "$@" "$prefix/sbin/kvard" >/dev/null
    if [[ $kind != start ]]; then
        for ((i = 1; i <= warmup; i++)); do
            if [[ $kind == minute ]]; then minute "$box" "$i"; else wake "$box"; fi
        done
        sleep 0.3
        for ((i = 1; i <= count; i++)); do
            if [[ $kind == minute ]]; then minute "$box" $((warmup + i)); else wake "$box"; fi
        done
    fi
    "$sandbox" stop "$box" >/dev/null
}

# Instructions of kvard and of the fake clock per event of KIND: two sessions,
# COUNT events apart, so that start-up and warm-up cancel out.
instructions() {
    local kind=$1 first second
    local grind=(valgrind --tool=callgrind "--callgrind-out-file=/.sandbox/callgrind.out")
    if [[ $kind == start ]]; then
        session start 0 "$work/$kind-1" "${grind[@]}"
        read -r all clockIr < <(python3 "$sum" ir "$work/$kind-1/sandbox/callgrind.out" libfaketime)
        echo $((all - clockIr)) "$clockIr"
        return
    fi
    grind+=("--toggle-collect=TmHandleTimeWake*")
    session "$kind" 0 "$work/$kind-1" "${grind[@]}"
    session "$kind" "$wakes" "$work/$kind-2" "${grind[@]}"
    read -r a1 c1 < <(python3 "$sum" ir "$work/$kind-1/sandbox/callgrind.out" libfaketime)
    read -r a2 c2 < <(python3 "$sum" ir "$work/$kind-2/sandbox/callgrind.out" libfaketime)
    echo $(((a2 - c2 - a1 + c1) / wakes)) $(((c2 - c1) / wakes))
}

# System calls per event of KIND: the median exchange, and the calls by name.
calls() {
    local kind=$1
    session "$kind" "$wakes" "$work/$kind-strace" strace -o /.sandbox/strace.log
    python3 "$sum" syscalls "$work/$kind-strace/sandbox/strace.log" "$clock" \
        "$([[ $kind == start ]] && echo -1 || echo "$warmup")"
}

declare -A ir clockir sys clocksys names
for kind in wake minute start; do
    read -r ir[$kind] clockir[$kind] < <(instructions "$kind")
    read -r _ sys[$kind] clocksys[$kind] names[$kind] < <(calls "$kind")
done

# The rebuild of full rings (a zone change answered after it) against the bare
# loop, in wall time and in CPU time (the daemon's, the loop's own): the least
# of five repetitions of each, the one the machine's other work disturbed least.
rebuild=$(KVARD_PREFIX="$prefix" "$build/bench/rebuild_bench" --benchmark_format=json \
    --benchmark_repetitions=5 \
    --benchmark_filter='BareLoop|ZoneChange/(same_name_no_rebuild|both_rings_full)' 2>/dev/null |
    python3 -c '
import json, sys
wall, cpu = {}, {}
for b in json.load(sys.stdin)["benchmarks"]:
    if b.get("run_type") == "iteration":
        name = b["run_name"].split("/iterations")[0]
        wall[name] = min(wall.get(name, float("inf")), b["real_time"])
        used = b["daemon_cpu_ms"] if "daemon_cpu_ms" in b else b["cpu_time"]
        cpu[name] = min(cpu.get(name, float("inf")), used)
full, none, bare = "ZoneChange/both_rings_full", "ZoneChange/same_name_no_rebuild", "BareLoop"
rw, rc = wall[full] - wall[none], cpu[full] - cpu[none]
print(f"{rw:.2f} {wall[bare]:.2f} {rw / wall[bare]:.2f} {rc:.2f} {cpu[bare]:.2f} {rc / cpu[bare]:.2f}")')
read -r rebuild_ms bare_ms ratio rebuild_cpu bare_cpu cpu_ratio <<<"$rebuild"

echo
echo "kvard of $prefix, $wakes events per kind, medians of system calls"
echo
echo "| Event | Instructions | System calls | Fake clock (left out): instructions, calls |"
echo "|---|---|---|---|"
printf '| plain wake | %d | %d | %d, %d |\n' "${ir[wake]}" "${sys[wake]}" "${clockir[wake]}" "${clocksys[wake]}"
printf '| minute close (emulated NAND included) | %d | %d | %d, %d |\n' "${ir[minute]}" "${sys[minute]}" \
    "${clockir[minute]}" "${clocksys[minute]}"
printf '| start on full rings, to the first wait | %d | %d | %d, %d |\n' "${ir[start]}" "${sys[start]}" \
    "${clockir[start]}" "${clocksys[start]}"
echo
printf 'rebuild of full rings: %s ms (CPU %s ms); bare loop of its kernel calls: %s ms (CPU %s ms); ratio %s (CPU %s)\n' \
    "$rebuild_ms" "$rebuild_cpu" "$bare_ms" "$bare_cpu" "$ratio" "$cpu_ratio"
echo
for kind in wake minute start; do printf 'calls of a %s: %s\n' "$kind" "${names[$kind]}"; done
