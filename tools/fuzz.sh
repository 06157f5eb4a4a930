#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer, ASan+UBSan) in build/fuzz and runs them.
#   tools/fuzz.sh            the CTest form: regressions, then 60 s per target ($KVARD_FUZZ_SECONDS)
#   tools/fuzz.sh --long     the long form: regressions, then a fixed count of executions per
#                            target, two targets at a time; the corpora grow in build/fuzz/corpus
# A failing input lands in build/fuzz/tests/fuzz/artifacts/<target>-crash-...; docs/fuzzing.md
# says how to replay it.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
out=${KVARD_BUILD_DIR:-$top/build}/fuzz
cmake -S "$top" -B "$out" -G Ninja -DKVARD_FUZZ=ON -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$out"
if [ "${1:-}" != --long ]; then
  cd "$out" && exec ctest -L fuzz -j2 --output-on-failure
fi

# Executions per target: the netdev reader is cheap, the others start a daemon per input.
declare -A goal=([netdev]=5000000 [store]=1000000 [datagram]=200000 [rebuild]=200000)
bin=$out/tests/fuzz
long() {  # target
  local t=$1
  local corpus=$out/corpus/$t log=$out/fuzz-$t.log scratch
  mkdir -p "$corpus" "$bin/artifacts"
  cp -n "$top/tests/fuzz/corpus/$t"/* "$corpus/"
  local regressions=("$top/tests/fuzz/regressions/$t"/*)
  : > "$log"
  if [ ${#regressions[@]} -gt 0 ] && ! "$bin/${t}_fuzz" -close_fd_mask=1 "${regressions[@]}" >> "$log" 2>&1; then
    echo "$t: a regression input fails, see $log"
    return 1
  fi
  scratch=$(mktemp -d -p /dev/shm 2>/dev/null || mktemp -d)
  local start=$SECONDS result=0
  TMPDIR=$scratch "$bin/${t}_fuzz" -close_fd_mask=1 -rss_limit_mb=2048 -timeout=30 -runs="${goal[$t]}" \
    -print_final_stats=1 -artifact_prefix="$bin/artifacts/$t-" "$corpus" >> "$log" 2>&1 || result=$?
  rm -rf "$scratch"
  if [ $result -ne 0 ]; then
    echo "$t: FAILED, see $log"
    return 1
  fi
  echo "$t: $(grep '^Done' "$log" | tail -1), $(grep average_exec_per_sec "$log" | awk '{print $2}') execs/s"
}
shopt -s nullglob
status=0
long netdev & long store & wait -n || status=1; wait -n || status=1
long datagram & long rebuild & wait -n || status=1; wait -n || status=1
exit $status
