#!/usr/bin/env bash
# The reliability tier in one command: the power-cut campaign, the flash fault
# sweep and the bad-block run against the daemon built with AddressSanitizer and
# UndefinedBehaviorSanitizer, then the fuzz targets (clang, libFuzzer).
#   tools/reliability.sh          the bounded form, as the suite runs it
#   tools/reliability.sh --long   the long form: 300 power cuts of the traffic
#                                 (and 60 of the manual reset), then the fuzz
#                                 targets' fixed execution counts
# KVARD_POWER_CUTS overrides the number of traffic cuts, KVARD_POWER_CUT_SEED
# picks the campaign (printed on failure). Exit status 0 only when all passed.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
out=${KVARD_BUILD_DIR:-$top/build}
long=${1:-}
case "$long" in
  ""|--long) ;;
  -h|--help) sed -n '2,10p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
  *) echo "reliability.sh: unknown option '$long' (expected --long or nothing)" >&2; exit 2 ;;
esac
bash "$top/tools/install-deps.sh"

echo "=== power cuts, flash faults, bad blocks (ASan+UBSan)"
cmake -S "$top" -B "$out/sanitize" -G Ninja -DKVARD_SANITIZE=ON >/dev/null
cmake --build "$out/sanitize"
cuts=${KVARD_POWER_CUTS:-}
[ "$long" = --long ] && cuts=${cuts:-300}
(cd "$out/sanitize" && KVARD_POWER_CUTS=${cuts:-30} ctest -L reliability --output-on-failure --timeout 7200)

echo "=== fuzz targets"
bash "$top/tools/fuzz.sh" $long
echo "reliability tier passed"
