#!/usr/bin/env bash
# Resident memory of the daemon with the link up: runs it on the simulated board
# (EC200T, auto_dial=1, the link check every 3 s against the board's far end),
# waits for the data call and two probes, then prints VmRSS, VmHWM, the
# proportional set size (shared library pages divided among their users), the thread
# count and the largest mappings (pmap -x). Run by hand as root.
#
#   bench/rss.sh [--daemon PATH] [--build DIR]
# DIR (default build-run) provides the simulated board; PATH (default DIR's
# daemon) is the daemon measured, e.g. a MinSizeRel or static build's.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build-run"
daemon_bin=""
while [ $# -gt 0 ]; do
  case "$1" in
    --daemon) daemon_bin="$(realpath "${2:?}")"; shift 2 ;;
    --build) build="$(realpath "${2:?}")"; shift 2 ;;
    *) echo "rss.sh: unknown argument '$1'" >&2; exit 2 ;;
  esac
done
[ "$(id -u)" -eq 0 ] || { echo "rss.sh: the simulated board needs root" >&2; exit 1; }
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" --target zolvin_4g zolvin_simboard zolvin_fakecmd -j 2 >/dev/null
daemon_bin="${daemon_bin:-$build/zolvin_4g}"

work="$(mktemp -d /tmp/zolvin_rss.XXXXXX)"
board_pid=""
cleanup() {
  [ -n "$board_pid" ] && kill -TERM "$board_pid" 2>/dev/null && { wait "$board_pid" 2>/dev/null || true; }
  rm -rf "$work"
}
trap cleanup EXIT

printf 'apn_name=cmnet\nauto_dial=1\nauto_check=1\ncheck_timeS=3\nping_address1=10.64.0.1\n' >"$work/zolvin_4g.conf"
"$build/tools/simboard/zolvin_simboard" --work "$work" --family ec200t \
  --conf "$work/zolvin_4g.conf" -- "$daemon_bin" >/dev/null 2>&1 &
board_pid=$!

until=$(( $(date +%s) + 60 ))
until grep -q 'busybox udhcpc' "$work/calls.log" 2>/dev/null; do
  [ "$(date +%s)" -lt "$until" ] || { echo "rss.sh: no dial within 60 s" >&2; exit 1; }
  sleep 0.2
done
daemon=""
for p in $(pgrep -x "$(basename "$daemon_bin" | cut -c1-15)"); do
  [ "$(readlink "/proc/$p/ns/net")" = "$(readlink "/proc/$board_pid/ns/net")" ] && daemon=$p
done
[ -n "$daemon" ] || { echo "rss.sh: daemon not found" >&2; exit 1; }
sleep 7 # two link check periods: the check thread has probed
echo "== $daemon_bin ($(stat -c %s "$daemon_bin") bytes)"
grep -E '^(VmRSS|VmHWM|RssAnon|RssFile|Threads):' "/proc/$daemon/status"
grep -E "^Pss:" "/proc/$daemon/smaps_rollup"
echo "echo requests the far end saw: $(wc -l <"$work/pings.log" 2>/dev/null || echo 0)"
echo "-- largest resident mappings (KiB):"
pmap -x "$daemon" | awk 'NR > 2 && $3 ~ /^[0-9]+$/ && $3 > 0' | sort -k3 -n -r | head -12
