#!/usr/bin/env bash
# Soak run: the daemon (`zolvin_4g debug`, auto_dial=1, the link check every 2 s
# against the board's far end) on the simulated board for a given time, under a
# slow random mix of client requests, module events and resets: client restarts
# (901) and the module leaving the bus by itself, for 2 to 10 s or, one
# departure in four, for 65 to 70 s. Every interval it prints the daemon's
# descriptors, memory, threads and wake-ups and what the mix has done; at the
# end a summary. Exits 1 on a FAULT: the daemon died or did not come back to a
# working data call; a departure not taken back within 60 s of the plug (and
# its dial), or with a power cycle when short, or not exactly one when long;
# a request that failed while the module was away other than with status 13
# and not in flight at the unplug; any "at send error!"; 913's lost= not the
# number of departures; power cycles other than one per restart and per long
# departure; more descriptors at the end than at the start. Run by hand as
# root, not in CI.
#
#   scripts/soak.sh [--minutes N] [--interval S] [--family ec200t|ec20|ec200s]
#                   [--build DIR] [--seed N]
set -euo pipefail

minutes=5
interval=10
family=ec200t
seed=$(( $(date +%s) % 32768 ))
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build/gcc"
while [ $# -gt 0 ]; do
  case "$1" in
    --minutes) minutes="${2:?--minutes needs a number}"; shift 2 ;;
    --interval) interval="${2:?--interval needs a number}"; shift 2 ;;
    --family) family="${2:?--family needs a name}"; shift 2 ;;
    --build) build="${2:?--build needs a directory}"; shift 2 ;;
    --seed) seed="${2:?--seed needs a number}"; shift 2 ;;
    -h|--help) sed -n '2,17p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "soak.sh: unknown argument '$1'" >&2; exit 2 ;;
  esac
done
for n in "$minutes" "$interval" "$seed"; do
  case "$n" in ''|*[!0-9]*|0) echo "soak.sh: --minutes, --interval and --seed need whole numbers above 0" >&2; exit 2 ;; esac
done
case "$family" in ec200t|ec20|ec200s) ;; *) echo "soak.sh: --family is ec200t, ec20 or ec200s" >&2; exit 2 ;; esac
[ "$(id -u)" -eq 0 ] || { echo "soak.sh: the simulated board needs root" >&2; exit 1; }
RANDOM=$seed

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -G Ninja -DZOLVIN_WERROR=ON -DZOLVIN_BENCH=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" --target zolvin_4g zolvin_simboard zolvin_fakecmd zolvin_boardctl zolvin_4g_ctl -j 2 >/dev/null
boardctl_bin="$build/tools/simboard/zolvin_boardctl"
ctl_bin="$build/tools/ctl/zolvin_4g_ctl"

work="$(mktemp -d /tmp/zolvin_soak.XXXXXX)"
log="$work/soak.log"
actions="$work/actions.log"
board_pid=""
sampler_pid=""
leave_pid=""
listen_pid=""
cleanup() {
  # Each may be gone already: no failure here may become the script's status.
  [ -z "$sampler_pid" ] || kill "$sampler_pid" 2>/dev/null || true
  [ -z "$leave_pid" ] || kill "$leave_pid" 2>/dev/null || true
  [ -z "$listen_pid" ] || kill "$listen_pid" 2>/dev/null || true
  # The board ends by the signal: its status is not this script's.
  [ -z "$board_pid" ] || { kill -TERM "$board_pid" 2>/dev/null && wait "$board_pid" 2>/dev/null; } || true
}
trap cleanup EXIT
trap 'exit 130' INT TERM

say() { echo "$*" | tee -a "$log"; }
note() { echo "$(elapsed) $*" >>"$actions"; }
now_ms() { echo $(( $(date +%s%N) / 1000000 )); }
pause() { # min_ms max_ms: a random pause between the two
  ms_sleep $(( $1 + RANDOM % ($2 - $1 + 1) ))
}
ms_sleep() { sleep "$(printf '%d.%03d' $(($1 / 1000)) $(($1 % 1000)))"; }
pick() { echo "${@:$(( RANDOM % $# + 1 )):1}"; }

cat >"$work/zolvin_4g.conf" <<'CONF'
apn_name=cmnet
apn_auth=1
auto_dial=1
auto_check=1
check_timeS=2
ping_address1=10.64.0.1
CONF

say "== soak: $family for $minutes min, a line every $interval s, seed $seed"
say "== log $log (client actions in $actions, the board's records in $work)"
# --power-replug: the daemon's power cycle really takes the module off the bus.
"$build/tools/simboard/zolvin_simboard" --work "$work" --family "$family" --power-replug 1000 \
  --conf "$work/zolvin_4g.conf" -- "$build/zolvin_4g" debug >/dev/null 2>&1 &
board_pid=$!

count() { local n; n=$(grep -c "$2" "$work/$1" 2>/dev/null) || true; echo "${n:-0}"; } # file, pattern
dials() { count calls.log 'busybox udhcpc'; }
power_offs() { count lines.log ' pwr 0'; }
deadline=$(( $(date +%s) + 60 ))
until [ "$(dials)" -gt 0 ]; do
  [ "$(date +%s)" -lt "$deadline" ] || { say "soak.sh: no data call within 60 s"; exit 1; }
  sleep 0.2
done
daemon=""
for p in $(pgrep -x zolvin_4g); do
  # The one on this board: the same network namespace as the board process.
  if [ "$(readlink "/proc/$p/ns/net")" = "$(readlink "/proc/$board_pid/ns/net")" ]; then
    daemon=$p
  fi
done
[ -n "$daemon" ] || { say "soak.sh: daemon not found"; exit 1; }
alive() { [ -d "/proc/$daemon" ] && kill -0 "$board_pid" 2>/dev/null; }

# ---- measuring

start_ms=$(now_ms)
elapsed() { local ms=$(( $(now_ms) - start_ms )); printf '%d.%d' $((ms / 1000)) $((ms % 1000 / 100)); }
switches() { # "tid switches" per thread of the daemon
  local t
  for t in /proc/"$daemon"/task/*; do
    awk -v t="${t##*/}" '/^voluntary_ctxt_switches/ {v=$2} /^nonvoluntary_ctxt_switches/ {n=$2}
                         END {if (v != "") print t, v+n}' "$t/status" 2>/dev/null
  done
}
# Threads that ended since the last line (the request workers) take their
# switches since then with them; new threads count from their start.
woken() { # previous snapshot, current snapshot: switches in between
  join -a 2 -e 0 -o 1.2,2.2 <(echo "$1" | sort) <(echo "$2" | sort) |
    awk '{d += $2 - $1} END {print d + 0}'
}
counts_file="$work/counts"
sent=0; answered=0; refused=0; failed=0; events=0; resets=0
by_departure=0 # failures of requests in flight at an unplug
at_return=0    # failures after a departure's return, the daemon ready again, before its dial
at_send=0      # answers "at send error!"
restarts=0; short_departures=0; long_departures=0; faults=0
save_counts() {
  echo "$sent $answered $refused $failed $by_departure $events $resets" >"$counts_file.tmp"
  mv "$counts_file.tmp" "$counts_file"
}
save_counts
fault() { faults=$((faults + 1)); note "FAULT: $*"; echo "$(elapsed) $*" >>"$work/faults"; }
header() {
  say "$(printf '%8s %4s %7s %7s %3s %8s %6s %6s %6s %6s %6s %6s %6s' \
    time_s fds rss_kB hwm_kB thr wakeup/s sent answrd refusd failed bydep events resets)"
}
row() { # the columns of one line of samples
  # shellcheck disable=SC2086
  printf '%8s %4d %7d %7d %3d %8s %6d %6d %6d %6d %6d %6d %6d\n' $1
}
sample() { # switches and time of the previous line; sets last_switches, last_ms
  local fds rss hwm thr now ms rate
  fds=$(ls "/proc/$daemon/fd" 2>/dev/null | wc -l)
  read -r rss hwm thr < <(awk '/^VmRSS/ {r=$2} /^VmHWM/ {h=$2} /^Threads/ {t=$2} END {print r, h, t}' \
    "/proc/$daemon/status" 2>/dev/null) && [ -n "$thr" ] || return 1
  now=$(switches)
  ms=$(now_ms)
  rate=$(awk -v w="$(woken "$1" "$now")" -v ms=$((ms - $2)) 'BEGIN {printf "%.1f", (ms > 0 ? w * 1000 / ms : 0)}')
  echo "$(elapsed) $fds $rss $hwm $thr $rate $(cat "$counts_file")" >>"$work/samples"
  say "$(tail -n 1 "$work/samples" | row "$(cat)")"
  last_switches=$now
  last_ms=$ms
}
# A line over 5 s in which the mix does nothing (after 2 s for the last
# request's tail); the log gets each thread's share.
quiet_sample() {
  local before t0
  sleep 2
  before=$(switches); t0=$(now_ms); sleep 5
  sample "$before" "$t0" || return 1
  for t in /proc/"$daemon"/task/*; do
    echo "${t##*/} $(cat "$t/comm" 2>/dev/null)"
  done | sort | join - <(join -a 2 -e 0 -o 0,1.2,2.2 <(echo "$before" | sort) <(echo "$last_switches" | sort)) |
    awk '{printf "         thread %-16s %d wake-ups in 5 s\n", $2, $4 - $3}' >>"$log"
}

# ---- departures
# A departure runs beside the mix: a background process takes the module off
# the bus and puts it back (the board only, never the daemon, which serves one
# client at a time), writing the times of both; the mix's own loop asks the
# daemon whether it has taken the module back. Its records:
#   dep.unplug   "U0 U1": the unplug command's start and end (U1 "-" until done)
#   dep.plug     the time the module was back on the bus
#   dep.error    what the board refused
#   departures   "U0 U1 PLUG OVER" of each departure that has ended
dep_active=0
departures=0

# Where a failed request (its start and end, ms) stands to the departures:
# "unplug" when it was in flight at an unplug (it began before the unplug
# command was done and ended after it began), "away" when the module was off
# the bus during it, "return" when it fell between the plug and the end of
# the departure, else nothing.
departure_of() {
  { cat "$work/departures" 2>/dev/null || true
    if [ "$dep_active" -eq 1 ] && [ -s "$work/dep.unplug" ]; then
      echo "$(cat "$work/dep.unplug") $(cat "$work/dep.plug" 2>/dev/null || echo -) -"
    fi; } |
    awk -v s="$1" -v e="$2" '
      { u0 = $1; u1 = ($2 == "-" ? 1e18 : $2); plug = ($3 == "-" ? 1e18 : $3); over = ($4 == "-" ? 1e18 : $4)
        if (s < u1 && e >= u0) { print "unplug"; exit }
        if (s < plug && e >= u0) { print "away"; exit }
        if (s < over && e >= plug) { print "return"; exit } }'
}

# The module leaves the bus, short (2 to 10 s) or long (65 to 70 s, past the
# daemon's 60 s search: its power cycle brings the module back, or the plug
# does). A module that leaves takes its network with it: the far end answers
# no echo while it is away.
leave_reset() { # short|long
  local kind=$1 away_ms delay_ms slow=0
  if [ "$kind" = long ]; then
    away_ms=$(( 65000 + RANDOM % 5001 )); long_departures=$((long_departures + 1))
  else
    away_ms=$(( 2000 + RANDOM % 8001 )); short_departures=$((short_departures + 1))
  fi
  departures=$((departures + 1))
  # Half the time the unplug lands in a message the module is slow to take:
  # a request in flight at the unplug. Otherwise wherever the mix is then.
  if [ $(( RANDOM % 2 )) -eq 0 ]; then
    slow=1; delay_ms=$(( 300 + RANDOM % 1201 ))
    modem "reply prefix AT+CMGS= once body delay 20000 standard"
  else
    delay_ms=$(( RANDOM % 3001 ))
  fi
  dep_kind=$kind
  dep_offs=$(power_offs)
  dep_dials=$(dials)
  dep_back=0
  rm -f "$work/dep.unplug" "$work/dep.plug" "$work/dep.error"
  dep_active=1
  note "reset: departure $departures ($kind): the module leaves the bus in $delay_ms ms, for $away_ms ms"
  ( set +e
    ms_sleep "$delay_ms"
    board "echo off" || echo "echo off refused" >>"$work/dep.error"
    u0=$(now_ms)
    echo "$u0 -" >"$work/dep.unplug.tmp" && mv "$work/dep.unplug.tmp" "$work/dep.unplug"
    board unplug || echo "unplug refused" >>"$work/dep.error"
    echo "$u0 $(now_ms)" >"$work/dep.unplug.tmp" && mv "$work/dep.unplug.tmp" "$work/dep.unplug"
    note "departure $departures: the module left the bus"
    [ "$slow" -eq 0 ] || modem "clear AT+CMGS="
    left=$(( u0 + away_ms - $(now_ms) ))
    [ "$left" -le 0 ] || ms_sleep "$left"
    plugged() { "$boardctl_bin" "$work/control.sock" status 2>/dev/null | grep -q '^ok plugged'; }
    how="plugged"
    if [ "$kind" = long ] && plugged; then
      how="back already: the power cycle put it back"
    elif ! board plug; then
      # The power cycle's replug may come between the look and the plug.
      if [ "$kind" = long ] && plugged; then how="back already: the power cycle put it back"
      else echo "plug refused" >>"$work/dep.error"; fi
    fi
    board "echo on" || echo "echo on refused" >>"$work/dep.error"
    note "departure $departures: the module is on the bus again ($how)"
    now_ms >"$work/dep.plug.tmp" && mv "$work/dep.plug.tmp" "$work/dep.plug" ) &
  leave_pid=$!
  [ "$slow" -eq 0 ] || request sms send +8613912345678 "soak $sent, in flight"
}
departure_end() { # the time it ended
  echo "$(cat "$work/dep.unplug") $(cat "$work/dep.plug" 2>/dev/null || echo "$1") $1" >>"$work/departures"
  rm -f "$work/dep.unplug" "$work/dep.plug"
  wait "$leave_pid" 2>/dev/null || true
  leave_pid=""
  dep_active=0
}
# Called between the mix's actions. The departure is over once the daemon has
# taken the module back: 912 no longer answers 13 and a new dial happened.
follow_departure() {
  local now plug_ms out cycles
  [ "$dep_active" -eq 1 ] || return 0
  if [ -s "$work/dep.error" ]; then
    wait "$leave_pid" 2>/dev/null || true
    fault "departure $departures: the board: $(tr '\n' ';' <"$work/dep.error")"
    departure_end "$(now_ms)"; broken=1
    return 0
  fi
  [ -s "$work/dep.plug" ] || return 0
  plug_ms=$(cat "$work/dep.plug")
  if [ "$dep_back" -eq 0 ]; then
    out=$(ctl_raw --timeout 5 state 2>&1) || true
    if grep -q '^912 ok(0)' <<<"$out"; then
      dep_back=$(now_ms)
      note "departure $departures: 912 answers again $(( dep_back - plug_ms )) ms after the plug: $out"
    fi
  fi
  now=$(now_ms)
  if [ "$dep_back" -ne 0 ] && [ "$(dials)" -gt "$dep_dials" ]; then
    cycles=$(( $(power_offs) - dep_offs ))
    note "departure $departures over: taken back $(( now - plug_ms )) ms after the plug; $cycles power cycles"
    if [ "$dep_kind" = short ] && [ "$cycles" -ne 0 ]; then
      fault "departure $departures (short): $cycles power cycles"
    elif [ "$dep_kind" = long ] && [ "$cycles" -ne 1 ]; then
      fault "departure $departures (long): $cycles power cycles, not one"
    fi
    departure_end "$now"
  elif { [ "$dep_back" -eq 0 ] && [ $(( now - plug_ms )) -gt 60000 ]; } || [ $(( now - plug_ms )) -gt 90000 ]; then
    # 60 s for status 13 to end, 30 s more for the dial.
    fault "departure $departures ($dep_kind): not taken back $(( (now - plug_ms) / 1000 )) s after the plug: $([ "$dep_back" -ne 0 ] && echo "912 answers, no new dial" || echo "912: $out")"
    departure_end "$now"; broken=1
  fi
}

# ---- the mix

ctl_raw() { nsenter --net="/proc/$board_pid/ns/net" "$ctl_bin" "$@"; }
board() { "$boardctl_bin" "$work/control.sock" "$@" >>"$actions" 2>&1; }
modem() { "$boardctl_bin" "$work/modem.ctl" "$@" >>"$actions" 2>&1 || note "(the emulator refused: $*)"; }
# One request ended (start and end in ms, verdict, its output, what was asked).
# While the module is away, a request is refused with 13; one in flight at the
# unplug may end with its own failure; any other failure then is a fault, and
# so is "at send error!" at any time. The module is away while it is off the
# bus and, once it is back on the bus, for as long as 912 still answers 13:
# after that the daemon serves the module again and dials, and a request may
# fail as at any other time (a raw exchange waiting for the port ends with 11
# when the dial's first exchange ends pass-through mode).
tally() {
  local state
  sent=$((sent + 1))
  case "$3" in
    answered) answered=$((answered + 1)) ;;
    refused) refused=$((refused + 1)) ;;
    *) failed=$((failed + 1))
       case "$(departure_of "$1" "$2")" in
         unplug) by_departure=$((by_departure + 1)); note "FAILED, ended by the departure: $5" ;;
         away) fault "failed while the module was off the bus, not with status 13: $5: $(head -n 1 <<<"$4")" ;;
         return)
           # Asked at once: the daemon does not go back to 13 without a new
           # departure. 912 says busy (12) while a worker is ending: ready too.
           for _ in 1 2 3; do
             state=$(ctl_raw --timeout 5 state 2>&1) || true
             grep -q '^912 ' <<<"$state" && break
             sleep 0.2
           done
           if grep -Eq '^912 (ok\(0\)|busy\(12\))' <<<"$state"; then
             at_return=$((at_return + 1)); note "FAILED after the module's return (912: $state): $5"
           else
             fault "failed while the daemon still had the module away (912 after it: $state), not with status 13: $5: $(head -n 1 <<<"$4")"
           fi ;;
         *) note "FAILED: $5" ;;
       esac
       echo "$4" | sed 's/^/      /' >>"$actions" ;;
  esac
  if grep -q 'at send error!' <<<"$4"; then
    at_send=$((at_send + 1))
    fault "\"at send error!\" to: $5"
  fi
  note "$5 -> $(head -n 1 <<<"$4") ($(( $2 - $1 )) ms)"
  save_counts
}
# One request by a client that connects, asks and leaves. Status 12 (busy) and
# 13 (not ready) are refusals; a failure status, no reply in time, a closed or
# refused connection are failures.
request() {
  local out rc=0 t0 verdict=failed
  t0=$(now_ms)
  out=$(ctl_raw "$@" 2>&1) || rc=$?
  if [ "$rc" -eq 0 ]; then verdict=answered
  elif grep -Eq '^[0-9]+ (busy\(12\)|not-ready\(13\))' <<<"$out"; then verdict=refused; fi
  tally "$t0" "$(now_ms)" "$verdict" "$out" "$*"
}
query() {
  request "$(pick version state model imei imsi signal operator registration smsc)"
}
setting() {
  case $(( RANDOM % 10 )) in
    0) request apn get $(( RANDOM % 4 + 1 )) ;;
    1) request apn set 1 cmnet ;;
    2) request apn set 4 1 ;;
    3) request check ;;
    4) request check period ;;
    5) request check period 2 ;;
    6) request ping get $(( RANDOM % 6 + 1 )) ;;
    7) request ping set 1 10.64.0.1 ;;
    8) request down-script ;;
    *) request dial on ;;
  esac
}
# A client that stays a few seconds and sees what the module says meanwhile.
listener() {
  local out="$work/listen.out" t0 verdict=failed
  t0=$(now_ms)
  # nsenter runs the tool in its own process: $! is the tool.
  nsenter --net="/proc/$board_pid/ns/net" "$ctl_bin" listen version >"$out" 2>&1 &
  listen_pid=$!
  pause 200 500
  module_event 4
  pause 500 3000
  kill "$listen_pid" 2>/dev/null || true
  wait "$listen_pid" 2>/dev/null || true
  listen_pid=""
  if grep -q '^911 ok(0)' "$out"; then verdict=answered
  elif grep -Eq '^911 (busy\(12\)|not-ready\(13\))' "$out"; then verdict=refused; fi
  tally "$t0" "$(now_ms)" "$verdict" "$(tr '\n' '|' <"$out")" "listen version"
}
module_event() { # [kinds]: 4 leaves out the garbage, which a listener would not see
  events=$((events + 1))
  case $(( RANDOM % ${1:-5} )) in
    0) note "event: call"
       modem "inject RING \"+CLIP: \\\"139$(printf '%08d' $((RANDOM * 3)))\\\",129\""
       pause 300 2000
       modem 'inject "NO CARRIER"' ;;
    1) note "event: sms"
       modem 'inject "+CMT: ,34" 0891683108100005F0040D91683119325476F800006211320151242316C8329BFD0699E5EF36888E2E83DC65FAFD2D5F03' ;;
    2) note "event: report"
       modem 'inject "+CDS: 26" 0891683108100005F006050D91683119325476F8621132015124236211320161242300' ;;
    3) note "event: error line"
       modem 'inject "+CMS ERROR: 500"' ;;
    *) local hex
       hex=$(head -c $(( RANDOM % 40 + 1 )) /dev/urandom | od -An -tx1 | tr -d ' \n')
       [ $(( RANDOM % 2 )) -eq 0 ] && hex="${hex}0d0a"
       note "event: garbage $hex"
       modem "inject-raw $hex" ;;
  esac
  save_counts
}

# Resets, one at a time, each started once the previous one has ended with a
# new data call: a client restart (901), or a departure (above).
restart_reset() {
  restarts=$((restarts + 1))
  note "reset: client restart"
  ctl_raw --timeout 1 restart >>"$actions" 2>&1 || true # answered only when done
}
reset_over() {
  [ "$dep_active" -eq 0 ] && [ "$(dials)" -gt "$reset_dials" ]
}

# ---- the run

settled() { # the data call is up and a module command is answered; notes what is not
  local out
  reset_over || { note "not settled: a reset under way"; return 1; }
  out=$(ctl_raw state 2>&1) && grep -q '^912 ok(0) Connected' <<<"$out" ||
    { note "not settled: state -> $out"; return 1; }
  out=$(ctl_raw signal 2>&1) || { note "not settled: signal -> $out"; return 1; }
}
reset_dials=0
broken=0 # a departure the daemon did not take back: the mix stops
sleep 1 # let the dial's last exchange settle
settled || { say "soak.sh: the daemon does not answer after its first dial"; exit 1; }
start_ms=$(now_ms)
header
quiet_sample
first_fds=$(awk 'END {print $2}' "$work/samples")
first_rss=$(awk 'END {print $3}' "$work/samples")
first_offs=$(power_offs)

( tick=$last_ms
  while alive; do
    tick=$((tick + interval * 1000))
    wait_ms=$((tick - $(now_ms)))
    [ "$wait_ms" -le 0 ] || ms_sleep "$wait_ms"
    sample "$last_switches" "$last_ms" || break
  done
  say "$(printf '%8s' "$(elapsed)") the daemon is gone" ) &
sampler_pid=$!

end=$(( $(date +%s) + minutes * 60 ))
next_reset=$(( $(date +%s) + 20 + RANDOM % 20 ))
reset_n=0
while alive && [ "$broken" -eq 0 ] && [ "$(date +%s)" -lt "$end" ]; do
  follow_departure
  nowt=$(date +%s)
  # A reset starts only when there is time left for it to end before the run
  # does. Two departures to a restart; every fourth departure (the second
  # first, so that a short run has one) is a long one.
  if [ "$nowt" -ge "$next_reset" ] && reset_over; then
    if [ $(( reset_n % 3 )) -eq 2 ]; then kind=restart; need=45
    elif [ $(( departures % 4 )) -eq 1 ] && [ $(( end - nowt )) -ge 160 ]; then kind=long; need=160
    else kind=short; need=60; fi
    if [ $(( end - nowt )) -ge "$need" ]; then
      reset_dials=$(dials)
      resets=$((resets + 1)); reset_n=$((reset_n + 1)); save_counts
      if [ "$kind" = restart ]; then restart_reset; else leave_reset "$kind"; fi
    fi
    next_reset=$(( nowt + 30 + RANDOM % 40 ))
  fi
  case $(( RANDOM % 20 )) in
    0|1|2|3|4|5|6) query ;;
    7|8|9|10) setting ;;
    11) request sms send +8613912345678 "soak $sent" ;;
    12|13) request at AT+CSQ ;;
    14) listener ;;
    *) module_event ;;
  esac
  pause 300 2500
done
# A departure under way is followed to its end, within its own limits.
while alive && [ "$broken" -eq 0 ] && [ "$dep_active" -eq 1 ]; do
  follow_departure
  sleep 1
done

kill "$sampler_pid" 2>/dev/null || true
wait "$sampler_pid" 2>/dev/null || true
sampler_pid=""
settled_end=0
if alive && [ "$broken" -eq 0 ]; then
  say "== mix stopped at $(elapsed) s; waiting (up to 240 s) for the daemon to settle"
  deadline=$(( $(date +%s) + 240 ))
  # Asked once per round: a worker answers before it frees the port, so a
  # second look at once may find it busy.
  back=0
  while alive && [ "$(date +%s)" -lt "$deadline" ]; do
    if settled; then back=1; break; fi
    sleep 2
  done
  if [ "$back" -eq 1 ]; then
    say "== after the mix, the link up and no client:"
    quiet_sample && settled_end=1
  else
    fault "the daemon did not come back to a working data call within 240 s"
  fi
fi
stats="(no answer)"
if alive; then
  stats=$(ctl_raw stats 2>&1) || true
  lost=$(sed -n 's/.* lost=\([0-9]*\).*/\1/p' <<<"$stats")
  [ "$lost" = "$departures" ] || fault "913 says lost=${lost:-?}, the run made $departures departures"
else
  fault "the daemon died; board exit $(cat "$work/exit" 2>/dev/null || echo '(running)')"
  say "== last of the daemon's output:"
  tail -n 20 "$work/stdout" 2>/dev/null | tee -a "$log"
fi
cycles=$(( $(power_offs) - first_offs ))
[ "$cycles" -eq $(( restarts + long_departures )) ] ||
  fault "$cycles power cycles; $restarts restarts and $long_departures long departures make one each"

last_fds=$(awk 'END {print $2}' "$work/samples")
last_rss=$(awk 'END {print $3}' "$work/samples")
if [ "$settled_end" -eq 1 ] && [ "$last_fds" -gt "$first_fds" ]; then
  fault "the daemon holds $(( last_fds - first_fds )) descriptors more than at the start"
  ls -l "/proc/$daemon/fd" 2>/dev/null >>"$log"
fi
say "== summary over $(elapsed) s"
say "$(awk '{if (NR == 1 || $2 < fmin) fmin = $2; if ($2 > fmax) fmax = $2;
              if (NR == 1 || $3 < rmin) rmin = $3; if ($3 > rmax) rmax = $3; h = $4}
             END {printf "descriptors min %d max %d; VmRSS min %d max %d kB; VmHWM %d kB", fmin, fmax, rmin, rmax, h}' "$work/samples")"
say "first vs last (the link up, no client): descriptors $first_fds -> $last_fds, VmRSS $first_rss -> $last_rss kB"
say "requests sent $sent, answered $answered, refused $refused, failed $failed ($by_departure ended by a departure, $at_return after a return, the daemon ready again); \"at send error!\" $at_send; events $events"
say "resets $resets: restarts $restarts, departures $departures ($short_departures short, $long_departures long); power cycles $cycles"
say "daemon: $stats"
if [ "$faults" -eq 0 ]; then
  say "== passed"
else
  sed 's/^/FAULT at /' "$work/faults" | tee -a "$log"
  say "== FAILED: $faults faults (see $actions)"
fi
say "== log $log"
[ "$faults" -eq 0 ]
