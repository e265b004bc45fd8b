#!/usr/bin/env bash
# How often the idle daemon wakes up: runs it on the simulated board (EC200T,
# auto_dial=1, the link check on with its default 600 s period and the board's
# far end as its target), waits for the data call, then counts every thread's context
# switches over a window with the link up and nothing happening, and again with
# the module gone from the bus (unplugged: the daemon looks for it once a
# second; the window starts once it has noticed, 913 counting the departure,
# and ends inside its 60 s search, before any power cycle); in between, the
# daemon's resident memory (VmRSS, its
# anonymous and file-backed parts, the proportional set size that shares the
# libraries' pages among their users) and its largest mappings. Run by hand as
# root, not in CI.
#
#   bench/wakeups.sh [--seconds N] [--build DIR] [--daemon PATH] [--emulate ARCH]
# PATH (default DIR's daemon) is the daemon measured, e.g. a MinSizeRel build's.
# --emulate arm64|armhf runs PATH, that architecture's daemon, under qemu-user
# (scripts/emulator.sh): the wake-ups are then the emulator's threads (one per
# daemon thread, and its own), the memory the resident pages of the daemon's own
# address range.
set -euo pipefail

seconds=10
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build-run"
daemon_bin=""
arch=""
while [ $# -gt 0 ]; do
  case "$1" in
    --seconds) seconds="${2:?}"; shift 2 ;;
    --build) build="${2:?}"; shift 2 ;;
    --daemon) daemon_bin="$(realpath "${2:?}")"; shift 2 ;;
    --emulate) arch="${2:?}"; shift 2 ;;
    *) echo "wakeups.sh: unknown argument '$1'" >&2; exit 2 ;;
  esac
done
case "$seconds" in ''|*[!0-9]*|0) echo "wakeups.sh: --seconds needs a whole number above 0" >&2; exit 2 ;; esac
# The second window must end inside the daemon's 60 s search for the module.
[ "$seconds" -le 50 ] || { echo "wakeups.sh: --seconds is at most 50" >&2; exit 2; }
[ "$(id -u)" -eq 0 ] || { echo "wakeups.sh: the simulated board needs root" >&2; exit 1; }

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" --target zolvin_4g zolvin_simboard zolvin_fakecmd zolvin_boardctl zolvin_4g_ctl -j 2 >/dev/null
daemon_bin="${daemon_bin:-$build/zolvin_4g}"
run=("$daemon_bin")
if [ -n "$arch" ]; then
  . "$root/scripts/emulator.sh"
  emulator_for "$arch" || { echo "wakeups.sh: --emulate arm64 or armhf, not '$arch'" >&2; exit 2; }
  run=("${emulator[@]}" "$daemon_bin")
fi

. "$root/bench/board.sh"
board_start 'apn_name=cmnet\nauto_dial=1\nauto_check=1\ncheck_timeS=600\nping_address1=10.64.0.1\n' "${run[@]}"

wait_for 'busybox udhcpc' calls.log 60
daemon=""
for p in $(pgrep -f -- "$daemon_bin"); do
  # The one on this board (in its network namespace) that the command started,
  # not the board processes naming it on their command lines.
  if [ "$(tr '\0' '\n' <"/proc/$p/cmdline" 2>/dev/null | head -n 1)" = "${run[0]}" ] &&
     [ "$(readlink "/proc/$p/ns/net")" = "$(readlink "/proc/$board_pid/ns/net")" ]; then
    daemon=$p
  fi
done
[ -n "$daemon" ] || { echo "wakeups.sh: daemon not found" >&2; exit 1; }
sleep 1 # let the dial's last exchange settle

snapshot() { # prints "tid name switches" per thread
  for t in /proc/"$daemon"/task/*; do
    local v n
    v=$(awk '/^voluntary_ctxt_switches/ {v=$2} /^nonvoluntary_ctxt_switches/ {n=$2} END {print v+n}' "$t/status")
    n=$(cat "$t/comm")
    echo "$(basename "$t") $n $v"
  done
}

measure() { # label
  local before after
  before=$(snapshot)
  sleep "$seconds"
  after=$(snapshot)
  echo "== $1: wake-ups over $seconds s"
  join <(echo "$before" | sort) <(echo "$after" | sort) |
    awk -v s="$seconds" '{d=$5-$3; total+=d; printf "   %-16s %6d  (%.1f/s)\n", $2, d, d/s}
                         END {printf "   %-16s %6d  (%.2f/s)\n", "whole process", total, total/s}'
}

measure "link up, idle"
echo "== memory, link up"
if [ -z "$arch" ]; then
  grep -E '^(VmRSS|VmHWM|RssAnon|RssFile|Threads):' "/proc/$daemon/status" | sed 's/^/   /'
  grep -E '^Pss:' "/proc/$daemon/smaps_rollup" | sed 's/^/   /'
  echo "   largest resident mappings (KiB):"
  pmap -x "$daemon" | awk 'NR > 2 && $3 ~ /^[0-9]+$/ && $3 > 0' | sort -k3 -n -r | sed -n '2,9p;' | sed 's/^/   /'
else
  # The mappings inside the daemon's own range, summed (bash: hex addresses).
  read -r low high <<<"$guest_memory"
  rss=0 anon=0 pss=0 inside=0 name="" largest=""
  while read -r first second _ _ _ path; do
    case "$first" in
    *-*) s=$((16#${first%-*})) e=$((16#${first#*-}))
         inside=$(( s >= low && e <= high )); name="$first ${path:-[anonymous]}" ;;
    Rss:) [ "$inside" = 1 ] && { rss=$((rss + second)); [ "$second" -gt 0 ] && largest+="$second $name"$'\n'; } ;;
    Anonymous:) [ "$inside" = 1 ] && anon=$((anon + second)) ;;
    Pss:) [ "$inside" = 1 ] && pss=$((pss + second)) ;;
    esac
  done <"/proc/$daemon/smaps"
  echo "   daemon's own range: Rss $rss kB (anonymous $anon kB, file-backed $((rss - anon)) kB), Pss $pss kB"
  grep -E '^(VmRSS|Threads):' "/proc/$daemon/status" | sed 's/^/   emulator process, /'
  echo "   largest resident mappings of the daemon's range (KiB):"
  printf '%s' "$largest" | sort -n -r | head -n 8 | sed 's/^/   /'
fi
# The daemon's command socket lives in the board's network namespace.
ctl() { nsenter --net="/proc/$board_pid/ns/net" "$build/tools/ctl/zolvin_4g_ctl" "$@" 2>&1; }
echo "== board: $("$build/tools/simboard/zolvin_boardctl" "$work/control.sock" unplug)"
until=$(( $(date +%s) + 5 ))
until [[ "$(ctl stats || true)" == *" lost=1 "* ]]; do
  [ "$(date +%s)" -lt "$until" ] || { echo "wakeups.sh: 913 did not count the departure within 5 s" >&2; exit 1; }
  sleep 0.1
done
echo "== the daemon noticed: $(ctl state || true)"
sleep 1 # the last request's tail stays out of the window
measure "module gone from the bus"
# Still searching: no power cycle began, the module's requests are refused.
echo "== after the window: $(ctl state || true); power cycles: $(grep -c ' pwr 0' "$work/lines.log" || true)"
