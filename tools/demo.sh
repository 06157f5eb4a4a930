#!/usr/bin/env bash
# Runs kvard in the sandbox ("router in a box") on a fresh Debian 12 machine,
# as root: installs what it needs, builds and installs kvard into build/demo,
# starts the daemon with a seeded router data model and shows it at work.
# The instance keeps running afterwards; its state directory and the commands
# to talk to it or stop it are printed at the end.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
out=${KVARD_BUILD_DIR:-$top/build}
bash "$top/tools/install-deps.sh"
echo "building kvard, tmctl and the box in $out/demo ..."
cmake -S "$top" -B "$out/demo" -G Ninja -DKVARD_BENCH=OFF >/dev/null
cmake --build "$out/demo" -j"$(nproc)" --target kvard kvard-sandbox sandbox-helper tmctl tm.cgi mtdsim manpages >/dev/null
prefix=$out/demo/stage
cmake --install "$out/demo" --prefix "$prefix" >/dev/null
box=$prefix/bin/kvard-sandbox
state=${KVARD_DEMO_DIR:-$out/demo/instance}

say() { printf '\n== %s\n' "$*"; }
if [ -d "$state" ]; then "$box" stop "$state" >/dev/null 2>&1 || true; rm -rf "$state"; fi

say "A router in a box: clock synchronised at 2026-03-28 23:58:00 Europe/Berlin, DHCP WAN on eth0"
"$box" init "$state" --time "2026-03-28 23:58:00" --tz Europe/Berlin --seed router
"$box" netdev "$state" eth0.1 1500000 250000
"$box" start "$state" --wait >/dev/null
"$box" status "$state"

say "Heartbeat: tmctl send TM_MSG_HEARTBEAT --text hello  (reply word, then the daemon's line)"
"$box" exec "$state" -- tmctl send TM_MSG_HEARTBEAT --text hello
sleep 0.2; grep -a 'Heart Beat' "$state/stdout" || true

say "State dump: tmctl send TM_MSG_DUMP_STATE"
"$box" exec "$state" -- tmctl send TM_MSG_DUMP_STATE
sleep 0.2; sed -n '/^Minute Flash Size/,/^Next Flash Index/p' "$state/stdout"

say "The data model's settings object as the daemon reads it"
"$box" exec "$state" -- tmctl mdm get MDMOID_ORNA_TRAFFIC_METER

say "A simulated day: every 15 minutes the clock moves on, the WAN counters grow and a timer wake meters it"
start=$(TZ=Europe/Berlin date -d "2026-03-28 23:58:00" +%s)
rx=1500000; tx=250000
for step in $(seq 1 100); do
  now=$((start + step * 900))
  rx=$((rx + 2000000 + (step % 7) * 350000)); tx=$((tx + 300000 + (step % 5) * 40000))
  "$box" time "$state" "$(TZ=Europe/Berlin date -d "@$now" '+%F %T')"
  "$box" netdev "$state" eth0.1 "$rx" "$tx"
  "$box" exec "$state" -- tmctl send TM_MSG_TIME_WAKE >/dev/null
  printf '.'
done
echo
echo "The clock now reads $(TZ=Europe/Berlin date -d "@$now" '+%F %T %Z') (the day had 23 hours: summer time began)."

say "What the router shows: tmctl stats reads the published statistics object and the settings"
"$box" exec "$state" -- tmctl stats

say "A reboot: kvard stopped and started again rebuilds its figures from flash"
figures() { "$box" exec "$state" -- tmctl stats --json | python3 -c '
import json, sys
p = json.load(sys.stdin)["periods"]
print("  ".join("%s: %.2f MB down, %.2f MB up, %s connected" % (k, p[k]["download"], p[k]["upload"], p[k]["connTime"]) for k in ("today", "thismonth")))'; }
echo "before: $(figures)"
"$box" stop "$state" >/dev/null
"$box" start "$state" --wait >/dev/null
echo "after:  $(figures)"
echo "The byte figures are the same. The connection time of a DHCP link is not kept on flash"
echo "(only a PPP link's is), so after a restart it counts again from zero."

# The flash tools read the box's partition image from outside, at the box's clock and in its zone.
offline() { TZ=Europe/Berlin KVARD_MDM_DIR="$state/var/lib/kvard/mdm" "$prefix/bin/tmctl" "$@"; }
clock=$(cat "$state/sandbox/clock")

say "The history on flash: tmctl history, per day, as kvard rebuilds it"
offline history "$state/sandbox/mtd.img" --days --at "$clock" | tail -n 5

say "What is on the flash: tmctl flash decode, its summary"
offline flash decode "$state/sandbox/mtd.img" | sed -n '/^minute ring:/,$p'

say "A chart of the daily use"
offline chart "$state/sandbox/mtd.img" -o "$state/usage.png" --days 7 --at "$clock"

say "A simulated month with a limit: 400 MB a month, warning 100 MB before it, WAN cut and LED flashing at the limit"
echo "A typo is refused and nothing is written:"
"$box" exec "$state" -- tmctl config set limit=400GBB block_on=true || true
echo "The settings, checked, written and put in force with one command:"
"$box" exec "$state" -- tmctl config set contrl_type=both limit=400MB warn=100MB block_on=true led_on=true
wake() {  # epoch, rx, tx
  "$box" time "$state" "$(TZ=Europe/Berlin date -d "@$1" '+%F %T')"
  "$box" netdev "$state" eth0.1 "$2" "$3"
  "$box" exec "$state" -- tmctl send TM_MSG_TIME_WAKE --timeout 10000 >/dev/null
}
status() {
  printf '%s  markStatus=%s  %s\n' "$(TZ=Europe/Berlin date -d "@$1" '+%F %H:%M')" \
    "$("$box" exec "$state" -- tmctl mdm get MDMOID_ORNA_TRAFFIC_METER | sed -n 's/^markStatus=//p')" \
    "$("$box" exec "$state" -- tmctl stats --oneline)"
}
echo "markStatus: 0 no limit reached, 1 warning, 3 limit reached, 4 limit reached and the WAN taken down"
: > "$state/sandbox/stubs.log"
for day in $(seq 1 4); do
  now=$((now + 21600)); rx=$((rx + 40000000)); tx=$((tx + 5000000)); wake "$now" "$rx" "$tx"; status "$now"
done
echo "Commands the daemon ran (logger, ifconfig, dnsmasq, tmledflashd):"
sed 's/^/  /' "$state/sandbox/stubs.log"
echo "Limit files: /tmp/tmwarn.data=$(cat "$state/tmp/tmwarn.data" 2>/dev/null) /tmp/tmlimit.data: $(tr '\n' ' ' < "$state/tmp/tmlimit.data" 2>/dev/null)"

say "The monthly reset on 1 April 00:00 brings the WAN back (the daemon pauses 3 s for it)"
: > "$state/sandbox/stubs.log"
now=$(TZ=Europe/Berlin date -d "2026-04-01 00:00:30" +%s); rx=$((rx + 1000)); wake "$now" "$rx" "$tx"
now=$((now + 60)); wake "$now" "$rx" "$tx"; status "$now"
echo "Commands the daemon ran:"
sed 's/^/  /' "$state/sandbox/stubs.log"
"$box" exec "$state" -- tmctl mdm get MDMOID_ORNA_TRAFFIC_METER_STATISTICS | grep -E '^(thismonth|lastmonth)_(download|upload|total)='

say "The Traffic Meter page: lighttpd with the page and its CGI, inside the box, for the host's browser"
url=$("$box" web "$state")
echo "Open $url in a browser on this machine: the figures, the last 31 days, the settings and the reset."
echo "What the page reads from the CGI ($url""cgi-bin/tm.cgi/stats):"
python3 - "$url" <<'PY'
import json, sys, urllib.request
s = json.load(urllib.request.urlopen(sys.argv[1] + "cgi-bin/tm.cgi/stats", timeout=10))
m = s["periods"]["thismonth"]
print("  status: %s; this month %.2f MB down, %.2f MB up; counting from %s, next reset %s"
      % (s["status"]["words"], m["download"], m["upload"], s["start"]["local"], s["nextReset"]["local"]))
PY

cat <<MSG

kvard keeps running in the box, and the page is at $url. Try:
  $box exec $state -- tmctl send TM_MSG_DUMP_STATE_LISTS
  $box netdev $state eth0.1 9000000 800000     # move the WAN counters
  $box time $state "2026-03-29 00:05:00"       # move the clock
  cat $state/stdout                 # the daemon's output
  $box stop $state                              # stop it, and the page's server with it
MSG
