#!/usr/bin/env bash
# Builds the daemon and the simulated board, then runs the daemon with "debug"
# on a board carrying an EC200T and a sample configuration. Shows the daemon's
# output as it comes, then what the board recorded. Needs root (the board uses
# namespaces and mounts); installs missing build tools with apt-get.
#
#   scripts/run-board.sh [--seconds N] [--family ec20|ec200t|ec200s|none] [--keep] [--mqtt]
#
# The board is stopped after N seconds (default 15) if the daemon has not ended
# by itself by then. --mqtt also runs a Mosquitto broker and zolvin_4g_mqtt on
# the board, and shows what mosquitto_sub received of the board's state and
# events.
set -euo pipefail

seconds=15
family=ec200t
keep=0
mqtt=0
while [ $# -gt 0 ]; do
  case "$1" in
    --seconds) seconds="${2:?--seconds needs a number}"; shift 2 ;;
    --family) family="${2:?--family needs a name}"; shift 2 ;;
    --keep) keep=1; shift ;;
    --mqtt) mqtt=1; shift ;;
    -h|--help) sed -n '2,13p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "run-board.sh: unknown argument '$1'" >&2; exit 2 ;;
  esac
done
case "$seconds" in ''|*[!0-9]*) echo "run-board.sh: --seconds needs a whole number" >&2; exit 2 ;; esac

if [ "$(id -u)" -ne 0 ]; then
  echo "run-board.sh: the simulated board needs root" >&2
  exit 1
fi

root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build-run"

# Build tools, only what is missing.
missing=()
command -v cmake >/dev/null || missing+=(cmake)
command -v g++ >/dev/null || missing+=(g++)
if ! command -v ninja >/dev/null && ! command -v make >/dev/null; then missing+=(ninja-build); fi
[ -f /usr/include/gtest/gtest.h ] || missing+=(libgtest-dev)
if [ "$mqtt" -eq 1 ]; then
  command -v mosquitto >/dev/null || [ -x /usr/sbin/mosquitto ] || missing+=(mosquitto)
  command -v mosquitto_sub >/dev/null || missing+=(mosquitto-clients)
  [ -f /usr/include/mosquitto.h ] || missing+=(libmosquitto-dev)
fi
if [ ${#missing[@]} -gt 0 ]; then
  echo "== installing ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}"
fi

generator=()
command -v ninja >/dev/null && generator=(-G Ninja)
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" "${generator[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
targets=(zolvin_4g zolvin_simboard zolvin_fakecmd zolvin_boardctl zolvin_4g_ctl)
if [ "$mqtt" -eq 1 ]; then
  # A build tree configured before libmosquitto was installed must look again.
  grep -q '^MOSQUITTO_LIBRARY:FILEPATH=/' "$build/CMakeCache.txt" ||
    cmake -U 'MOSQUITTO_*' -S "$root" -B "$build" >/dev/null
  targets+=(zolvin_4g_mqtt)
fi
echo "== building in $build"
cmake --build "$build" --target "${targets[@]}" -j 2 >/dev/null

work="$(mktemp -d /tmp/zolvin_board.XXXXXX)"
board_pid=""
tail_pid=""
listener=""
mqtt_pids=()
cleanup() {
  for pid in "${mqtt_pids[@]}"; do kill "$pid" 2>/dev/null; done
  [ -n "$board_pid" ] && kill -TERM "$board_pid" 2>/dev/null && wait "$board_pid" 2>/dev/null
  [ -n "$tail_pid" ] && kill "$tail_pid" 2>/dev/null
  [ -n "$listener" ] && kill "$listener" 2>/dev/null
  if [ "$keep" -eq 1 ]; then echo "== records kept in $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

cat >"$work/zolvin_4g.conf" <<'CONF'
# Sample configuration for the simulated board
apn_name=cmnet
apn_auth=1
auto_dial=1
auto_check=1
check_timeS=3
ping_address1=10.64.0.1
client_group=users
CONF

echo "== board: $family, configuration:"
sed 's/^/   /' "$work/zolvin_4g.conf"
echo "== daemon output"
"$build/tools/simboard/zolvin_simboard" --work "$work" --family "$family" \
  --conf "$work/zolvin_4g.conf" -- "$build/zolvin_4g" debug &
board_pid=$!
tail -n +1 -F "$work/stdout" 2>/dev/null &
tail_pid=$!

deadline=$(( $(date +%s) + seconds ))
# Once the data call is up (the DHCP client ran), a client session with the tool,
# inside the board's network namespace where the daemon's socket lives.
ctl() {
  echo "\$ zolvin_4g_ctl $*"
  nsenter --net="/proc/$board_pid/ns/net" "$build/tools/ctl/zolvin_4g_ctl" "$@" 2>&1 | sed 's/^/  /' || true
}
# The tool as another user: only root and members of client_group are served.
ctl_as() { # user, group, tool arguments...
  local user=$1 group=$2; shift 2
  echo "\$ setpriv --reuid=$user --regid=$group --clear-groups zolvin_4g_ctl $*"
  nsenter --net="/proc/$board_pid/ns/net" setpriv --reuid="$user" --regid="$group" --clear-groups \
    "$build/tools/ctl/zolvin_4g_ctl" "$@" 2>&1 | sed 's/^/  /' || true
}
boardctl() { "$build/tools/simboard/zolvin_boardctl" "$@" >/dev/null; }
until_seen() { # pattern, file, seconds: waits for the pattern, with a deadline
  local until=$(( $(date +%s) + $3 ))
  until grep -q "$1" "$2" 2>/dev/null; do
    [ "$(date +%s)" -lt "$until" ] || { echo "  (no '$1' after $3 s)"; return 1; }
    sleep 0.1
  done
}
# A listener subscribed to the events for the whole client session, beside the
# client: started before the client's first request, its output shown after.
listen_start() {
  nsenter --net="/proc/$board_pid/ns/net" "$build/tools/ctl/zolvin_4g_ctl" listen version >"$work/listen.out" 2>&1 &
  listener=$!
  until_seen "^911 " "$work/listen.out" 10 || true
}
listen_stop() {
  [ -n "$listener" ] || return 0
  kill "$listener" 2>/dev/null; wait "$listener" 2>/dev/null || true
  listener=""
  echo "== the listener, beside the client all along"
  echo "\$ zolvin_4g_ctl listen version"
  sed 's/^/  /' "$work/listen.out"
}
# The module rings and receives an SMS and a status report, which the listener
# prints; then the client sends an SMS, and the module's record shows its PDU.
events_session() {
  echo "== the module rings, then an SMS and a status report arrive (see the listener below)"
  local modem="$work/modem.ctl"
  boardctl "$modem" 'inject RING "+CLIP: \"13912345678\",129"'
  boardctl "$modem" "inject \"NO CARRIER\""
  boardctl "$modem" 'inject "+CMT: ,34" 0891683108100005F0040D91683119325476F800006211320151242316C8329BFD0699E5EF36888E2E83DC65FAFD2D5F03'
  boardctl "$modem" 'inject "+CDS: 26" 0891683108100005F006050D91683119325476F8621132015124236211320161242300'
  until_seen 'report' "$work/listen.out" 10 || true
  ctl sms send +8613912345678 "Hello from the board"
  echo "  the module received:"
  "$build/tools/simboard/zolvin_boardctl" "$modem" "wait AT+CMGS 5000" | sed 's/^/    /'
}
# A broker on the board's loopback, a subscriber to everything the board
# publishes, and zolvin_4g_mqtt beside the client, all in the board's network
# namespace (where the daemon's events socket is).
  # (An array, not a function: a function put in the background is a subshell,
  # and $! would be its pid, not the program's.)
  in_board=(nsenter --net="/proc/$board_pid/ns/net")
mqtt_start() {
  [ "$mqtt" -eq 1 ] || return 0
  printf 'user root\nlog_dest stderr\nallow_anonymous true\nlistener 1883 127.0.0.1\n' >"$work/broker.conf"
  "${in_board[@]}" mosquitto -c "$work/broker.conf" >"$work/broker.log" 2>&1 &
  mqtt_pids+=($!)
  until_seen ' running' "$work/broker.log" 10 || return 0
  "${in_board[@]}" mosquitto_sub -h 127.0.0.1 -t 'zolvin/#' -v >"$work/mqtt_sub.out" 2>&1 &
  mqtt_pids+=($!)
  printf 'broker=127.0.0.1\nclient_id=demo-board\nstate_interval_s=5\n' >"$work/zolvin_4g_mqtt.conf"
  echo "== zolvin_4g_mqtt, configuration:"
  sed 's/^/   /' "$work/zolvin_4g_mqtt.conf"
  "${in_board[@]}" "$build/tools/mqtt/zolvin_4g_mqtt" --config "$work/zolvin_4g_mqtt.conf" >"$work/mqtt.log" 2>&1 &
  mqtt_pids+=($!)
  until_seen 'demo-board/state' "$work/mqtt_sub.out" 10 || true
}
mqtt_show() {
  [ "$mqtt" -eq 1 ] || return 0
  echo "== what the broker's subscriber received"
  echo "\$ mosquitto_sub -h 127.0.0.1 -t 'zolvin/#' -v"
  sed 's/^/  /' "$work/mqtt_sub.out"
  echo "== zolvin_4g_mqtt's own output"
  sed 's/^/  /' "$work/mqtt.log"
}
session_done=0
while kill -0 "$board_pid" 2>/dev/null && [ "$(date +%s)" -lt "$deadline" ]; do
  if [ "$session_done" -eq 0 ] && grep -q 'busybox udhcpc' "$work/calls.log" 2>/dev/null; then
    session_done=1
    sleep 0.5
    mqtt_start
    listen_start
    echo "== client session"
    ctl version
    ctl state
    ctl model
    ctl imei
    ctl imsi
    ctl signal
    ctl operator
    ctl at "AT+CSQ"
    ctl check
    ctl check period
    ctl ping get 1
    ctl_as nobody nogroup version
    ctl_as nobody users version
    events_session
    ctl status
    listen_stop
    mqtt_show
    echo "== daemon output (continued)"
  fi
  sleep 0.2
done
if kill -0 "$board_pid" 2>/dev/null; then
  echo "== stopping the board after $seconds s"
  kill -TERM "$board_pid"
fi
status=0
wait "$board_pid" || status=$?
board_pid=""
# Let tail show the last of the output before it goes.
sleep 0.3
kill "$tail_pid" 2>/dev/null || true
wait "$tail_pid" 2>/dev/null || true
tail_pid=""

show() {
  echo "== $1"
  if [ -s "$work/$2" ]; then sed 's/^/   /' "$work/$2"; else echo "   (none)"; fi
}
show "daemon's standard error" stderr
show "control lines (ms line value)" lines.log
show "commands run (ms argv)" calls.log
show "board events (ms event)" board.log
# The link check's echo requests as the far end of the module's link saw them;
# identifier and sequence are in the daemon's byte order (little-endian here).
echo "== link check probes at the far end (ms destination sequence)"
if [ -s "$work/pings.log" ]; then
  while read -r ms _src dst icmp; do
    echo "   $ms $dst seq $((16#${icmp:14:2}${icmp:12:2})) ($(( ${#icmp} / 2 )) bytes)"
  done <"$work/pings.log"
else
  echo "   (none)"
fi
echo "== board exit status: $status"
