#!/usr/bin/env bash
# zolvin_4g_mqtt by hand, on the simulated board (EC200T, auto_dial=1) with a
# Mosquitto broker on the board's loopback: the time from a module line to its
# MQTT message at a subscriber (a tone line injected into the emulated module,
# to mosquitto_sub's own arrival time stamp, %U), the program's resident
# memory, and its wake-ups while idle (context switches over a window; the
# program's only timers are the state's period and the broker's 60 s
# keep-alive). Run as root, not in CI.
#
#   bench/mqtt.sh [--lines N] [--interval S] [--seconds W] [--build DIR]
#   N tone lines (default 50), state_interval_s S (default 20), idle window W
#   (default 130: two keep-alives).
set -euo pipefail

lines=50
interval=20
seconds=130
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build-run"
while [ $# -gt 0 ]; do
  case "$1" in
    --lines) lines="${2:?}"; shift 2 ;;
    --interval) interval="${2:?}"; shift 2 ;;
    --seconds) seconds="${2:?}"; shift 2 ;;
    --build) build="${2:?}"; shift 2 ;;
    *) echo "mqtt.sh: unknown argument '$1'" >&2; exit 2 ;;
  esac
done
[ "$(id -u)" -eq 0 ] || { echo "mqtt.sh: the simulated board needs root" >&2; exit 1; }
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" --target zolvin_4g zolvin_simboard zolvin_fakecmd zolvin_boardctl zolvin_4g_mqtt -j 2 >/dev/null

. "$root/bench/board.sh"
board_start 'apn_name=cmnet\nauto_dial=1\n' "$build/zolvin_4g"
wait_for 'busybox udhcpc' calls.log 60
# (An array, not a function: a function put in the background is a subshell,
# and $! would be its pid, not the program's.)
in_board=(nsenter --net="/proc/$board_pid/ns/net")
printf 'user root\nlog_dest stderr\nallow_anonymous true\nlistener 1883 127.0.0.1\n' >"$work/broker.conf"
"${in_board[@]}" mosquitto -c "$work/broker.conf" >"$work/broker.log" 2>&1 &
pids+=($!)
wait_for ' running' broker.log 10
"${in_board[@]}" mosquitto_sub -h 127.0.0.1 -t 'zolvin/#' -F '%U %t %p' >"$work/sub.out" 2>&1 &
pids+=($!)
printf 'broker=127.0.0.1\nclient_id=bench\nstate_interval_s=%s\n' "$interval" >"$work/mqtt.conf"
"${in_board[@]}" "$build/tools/mqtt/zolvin_4g_mqtt" --config "$work/mqtt.conf" >"$work/mqtt.log" 2>&1 &
program=$!
pids+=($program)
wait_for 'bench/state' sub.out 10

echo "== module line to MQTT message at the subscriber, $lines tone lines 100 ms apart"
for i in $(seq 1 "$lines"); do
  echo "$i $(date +%s.%N)" >>"$work/sent"
  "$build/tools/simboard/zolvin_boardctl" "$work/modem.ctl" "inject \"+QTONEDET: $i\"" >/dev/null
  sleep 0.1
done
wait_for "\"tone\":\"$lines\"" sub.out 10
# Both clocks are this machine's real-time clock.
grep '/event/tone ' "$work/sub.out" | sed 's/.*"tone":"\([0-9]*\)".*/\1 &/' | awk '{print $1, $2}' >"$work/got"
join <(sort "$work/sent") <(sort "$work/got") |
  awk '{print ($3 - $2) * 1000}' | sort -n |
  awk '{v[NR]=$1} END {printf "   %d messages: min %.2f ms, median %.2f ms, 95th %.2f ms, max %.2f ms\n",
                       NR, v[1], v[int((NR+1)/2)], v[int(NR*0.95+0.5)], v[NR]}'
echo "   (from before zolvin_boardctl hands the line to the emulator: that hop is included)"

echo "== zolvin_4g_mqtt's memory"
grep -E '^(VmRSS|VmHWM|RssAnon|RssFile|Threads):' "/proc/$program/status" | sed 's/^/   /'
sleep 2
switches() { awk '/^voluntary_ctxt_switches/ {v=$2} /^nonvoluntary_ctxt_switches/ {n=$2} END {print v+n}' "/proc/$program/status"; }
before=$(switches)
states_before=$(grep -c '/state ' "$work/sub.out")
sleep "$seconds"
after=$(switches)
states=$(( $(grep -c '/state ' "$work/sub.out") - states_before ))
echo "== idle for $seconds s (state_interval_s=$interval, keep-alive 60 s)"
awk -v d=$((after - before)) -v s="$seconds" -v st="$states" \
  'BEGIN {printf "   %d wake-ups (%.3f/s), %d states published\n", d, d/s, st}'
