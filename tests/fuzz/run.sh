#!/usr/bin/env bash
# One fuzz target as a test: every regression input once, then fuzzing from a
# scratch copy of the seed corpus for $KVARD_FUZZ_SECONDS seconds (default 60).
# Any crash, sanitizer report, broken NAND rule, leak or timeout fails it; the
# input that did it is kept in the artifact directory.
# Usage: run.sh <binary> <tests/fuzz dir> <target> <artifact dir>
set -euo pipefail
binary=$1 src=$2 target=$3 artifacts=$4
seconds=${KVARD_FUZZ_SECONDS:-60}
# The store and the side files are rewritten for every input: memory beats a disk.
scratch=$(mktemp -d -p /dev/shm 2>/dev/null || mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$artifacts" "$scratch/corpus"
export TMPDIR=$scratch
# stdout (the daemon's console) is closed for speed; libFuzzer reports on stderr.
flags=(-rss_limit_mb=2048 -timeout=30 -close_fd_mask=1)

shopt -s nullglob
regressions=("$src/regressions/$target"/*)
if [ ${#regressions[@]} -gt 0 ]; then
  echo "== $target: ${#regressions[@]} regression inputs"
  "$binary" "${flags[@]}" "${regressions[@]}"
fi
cp "$src/corpus/$target"/* "$scratch/corpus/"
echo "== $target: fuzzing for $seconds s"
"$binary" "${flags[@]}" -max_total_time="$seconds" -print_final_stats=1 \
  -artifact_prefix="$artifacts/$target-" "$scratch/corpus"
