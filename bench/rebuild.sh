#!/bin/bash
# Builds the host tree, installs it into BUILD/stage and runs the rebuild
# benchmark there. BUILD defaults to build/host; arguments go to the benchmark.
#   bash bench/rebuild.sh [--benchmark_repetitions=5 ...]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${KVARD_BUILD_DIR:-build/host}
cmake -S . -B "$build" -G Ninja >/dev/null
cmake --build "$build"
cmake --install "$build" --prefix "$build/stage" >/dev/null
KVARD_PREFIX="$PWD/$build/stage" "$build/bench/rebuild_bench" --benchmark_repetitions=3 \
    --benchmark_report_aggregates_only=true "$@"
