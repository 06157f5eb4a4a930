#!/bin/bash
# Wall time of `kvard-sandbox replay` of a 31-day month (44,640 minutes, a
# simulated input and a simulation wake each) against kvard running in a
# fresh box. Builds BUILD (default build/host, or $KVARD_BUILD_DIR) and
# installs it into BUILD/stage, unless KVARD_PREFIX names an installed tree.
# Needs root (the box, and replay entering its network namespace). Uses
# hyperfine when it is installed, else times the runs itself.
#   bash bench/replay.sh [RUNS]        (default 5 runs after one warm-up)
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-5}
minutes=44640

if [[ -n ${KVARD_PREFIX:-} ]]; then
    prefix=$KVARD_PREFIX
else
    build=${KVARD_BUILD_DIR:-build/host}
    cmake -S . -B "$build" -G Ninja >/dev/null
    cmake --build "$build" >/dev/null
    cmake --install "$build" --prefix "$build/stage" >/dev/null
    prefix=$PWD/$build/stage
fi
sandbox=$prefix/bin/kvard-sandbox

work=$(mktemp -d "${KVARD_SANDBOX_TMPDIR:-/dev/shm}/kvard-replay-bench-XXXXXX")
cleanup() {
    "$sandbox" stop "$work/box" >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT

"$sandbox" init "$work/box" --time "2026-03-01 00:00:00" --tz UTC >/dev/null
"$sandbox" start "$work/box" --wait >/dev/null

# Cumulative counters a minute apart, busy minutes; relative times, so that
# every run goes on a month from where the one before left the box.
awk -v minutes="$minutes" 'BEGIN {
    srand(31); rx = 0; tx = 0
    print "time,rx,tx"; print "+0s,0,0"
    for (m = 1; m <= minutes; m++) {
        rx += int(rand() * 2000000); tx += int(rand() * 200000)
        printf "+1m,%.0f,%.0f\n", rx, tx
    }
}' >"$work/month.csv"

command=("$sandbox" replay "$work/box" "$work/month.csv")
echo "replay of $minutes minutes ($(wc -l <"$work/month.csv") lines) into kvard of $prefix"

times=()  # seconds of each run
if command -v hyperfine >/dev/null; then
    hyperfine --warmup 1 --runs "$runs" --export-csv "$work/times.csv" --export-json "$work/times.json" \
        "${command[*]}"
    # median and min from the CSV export: command,mean,stddev,median,user,system,min,max
    read -r median min < <(awk -F, 'NR == 2 { print $4, $7 }' "$work/times.csv")
else
    "${command[@]}" >/dev/null  # warm-up
    for ((i = 0; i < runs; i++)); do
        start=$(date +%s.%N)
        "${command[@]}" >/dev/null
        end=$(date +%s.%N)
        times+=("$(awk -v a="$start" -v b="$end" 'BEGIN { printf "%.3f", b - a }')")
    done
    sorted=$(printf '%s\n' "${times[@]}" | sort -g)
    min=$(head -1 <<<"$sorted")
    median=$(sed -n "$(((runs + 1) / 2))p" <<<"$sorted")
    printf 'runs (s): %s\n' "$(tr '\n' ' ' <<<"$sorted")"
fi
awk -v min="$min" -v median="$median" -v minutes="$minutes" 'BEGIN {
    printf "month: min %.3f s, median %.3f s; per minute: min %.1f us, median %.1f us\n",
           min, median, min / minutes * 1e6, median / minutes * 1e6
}'
