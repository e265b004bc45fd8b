#!/usr/bin/env bash
# Soak run: the daemon (`zolvin_4g debug`, auto_dial=1, the link check every 2 s
# against the board's far end) on the simulated board for a given time, under a
# slow random mix of client requests, module events and module resets. Every
# interval it prints the daemon's descriptors, memory, threads and wake-ups and
# what the mix has done; at the end a summary. Exits 1 when the daemon died,
# did not come back to a working data call, or holds more descriptors at the
# end than at the start. Run by hand as root, not in CI.
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
    -h|--help) sed -n '2,11p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
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
cleanup() {
  # Each may be gone already: no failure here may become the script's status.
  [ -z "$sampler_pid" ] || kill "$sampler_pid" 2>/dev/null || true
  [ -z "$leave_pid" ] || kill "$leave_pid" 2>/dev/null || true
  # The board ends by the signal: its status is not this script's.
  [ -z "$board_pid" ] || { kill -TERM "$board_pid" 2>/dev/null && wait "$board_pid" 2>/dev/null; } || true
}
trap cleanup EXIT
trap 'exit 130' INT TERM

say() { echo "$*" | tee -a "$log"; }
note() { echo "$(elapsed) $*" >>"$actions"; }
now_ms() { echo $(( $(date +%s%N) / 1000000 )); }
pause() { # min_ms max_ms: a random pause between the two
  local ms=$(( $1 + RANDOM % ($2 - $1 + 1) ))
  sleep "$(printf '%d.%03d' $((ms / 1000)) $((ms % 1000)))"
}
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
failed_away=0 # failures while a module that left the bus is not yet power-cycled
save_counts() {
  echo "$sent $answered $refused $failed $events $resets" >"$counts_file.tmp"
  mv "$counts_file.tmp" "$counts_file"
}
save_counts
header() {
  say "$(printf '%8s %4s %7s %7s %3s %8s %6s %6s %6s %6s %6s %6s' \
    time_s fds rss_kB hwm_kB thr wakeup/s sent answrd refusd failed events resets)"
}
row() { # the columns of one line of samples
  # shellcheck disable=SC2086
  printf '%8s %4d %7d %7d %3d %8s %6d %6d %6d %6d %6d %6d\n' $1
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

# ---- the mix

ctl_raw() { nsenter --net="/proc/$board_pid/ns/net" "$ctl_bin" "$@"; }
board() { "$boardctl_bin" "$work/control.sock" "$@" >>"$actions" 2>&1; }
modem() { "$boardctl_bin" "$work/modem.ctl" "$@" >>"$actions" 2>&1; }
# One request by a client that connects, asks and leaves. Status 12 (busy) and
# 13 (not ready) are refusals; a failure status, no reply in time, a closed or
# refused connection are failures.
request() {
  local out rc=0
  sent=$((sent + 1))
  out=$(ctl_raw "$@" 2>&1) || rc=$?
  if [ "$rc" -eq 0 ]; then
    answered=$((answered + 1))
  elif grep -Eq '^[0-9]+ (busy\(12\)|not-ready\(13\))' <<<"$out"; then
    refused=$((refused + 1))
  else
    failed=$((failed + 1))
    [ -e "$work/away" ] && failed_away=$((failed_away + 1))
    note "FAILED (exit $rc): $*"
    echo "$out" | sed 's/^/      /' >>"$actions"
  fi
  note "$* -> $(head -n 1 <<<"$out")"
  save_counts
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
  local out="$work/listen.out" l rc=0
  # nsenter runs the tool in its own process: $! is the tool.
  nsenter --net="/proc/$board_pid/ns/net" "$ctl_bin" listen version >"$out" 2>&1 &
  l=$!
  sent=$((sent + 1))
  pause 200 500
  module_event 4
  pause 500 3000
  kill "$l" 2>/dev/null || true
  wait "$l" 2>/dev/null || rc=$?
  if grep -q '^911 ok(0)' "$out"; then answered=$((answered + 1))
  elif grep -Eq '^911 (busy\(12\)|not-ready\(13\))' "$out"; then refused=$((refused + 1))
  else
    failed=$((failed + 1))
    note "FAILED (exit $rc): listen version"
    sed 's/^/      /' "$out" >>"$actions"
  fi
  note "listen version -> $(tr '\n' '|' <"$out")"
  save_counts
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
# new data call: a client restart (901), or the module leaving the bus. A real
# module that leaves takes its network with it, so the far end stops answering
# until the daemon has power-cycled the module.
restart_reset() {
  note "reset: client restart"
  ctl_raw --timeout 1 restart >>"$actions" 2>&1 || true # answered only when done
}
leave_reset() {
  local offs
  offs=$(power_offs)
  note "reset: the module leaves the bus"
  touch "$work/away"
  board "echo off"
  board unplug
  pause 2000 10000
  board plug
  note "reset: the module is back on the bus"
  ( deadline=$(( $(date +%s) + 300 ))
    while [ "$(power_offs)" -le "$offs" ] && [ "$(date +%s)" -lt "$deadline" ]; do sleep 1; done
    if [ "$(power_offs)" -le "$offs" ]; then
      note "STALL: no power cycle within 300 s of the module leaving the bus"
      echo stall >>"$work/stalls"
    fi
    rm -f "$work/away"
    board "echo on" ) &
  leave_pid=$!
}
# The reset is over once the daemon has dialled again and the far end answers.
reset_over() {
  [ "$(dials)" -gt "$reset_dials" ] && { [ -z "$leave_pid" ] || ! kill -0 "$leave_pid" 2>/dev/null; }
}

# ---- the run

settled() { # the data call is up and a module command is answered
  reset_over && ctl_raw state 2>/dev/null | grep -q '^912 ok(0) Connected' && ctl_raw signal >/dev/null 2>&1
}
reset_dials=0
sleep 1 # let the dial's last exchange settle
settled || { say "soak.sh: the daemon does not answer after its first dial"; exit 1; }
start_ms=$(now_ms)
header
quiet_sample
first_fds=$(awk 'END {print $2}' "$work/samples")
first_rss=$(awk 'END {print $3}' "$work/samples")

( tick=$last_ms
  while alive; do
    tick=$((tick + interval * 1000))
    wait_ms=$((tick - $(now_ms)))
    [ "$wait_ms" -le 0 ] || sleep "$(printf '%d.%03d' $((wait_ms / 1000)) $((wait_ms % 1000)))"
    sample "$last_switches" "$last_ms" || break
  done
  say "$(printf '%8s' "$(elapsed)") the daemon is gone" ) &
sampler_pid=$!

end=$(( $(date +%s) + minutes * 60 ))
next_reset=$(( $(date +%s) + 20 + RANDOM % 20 ))
reset_kind=leave # the longer one first, so that a short run has both
while alive && [ "$(date +%s)" -lt "$end" ]; do
  nowt=$(date +%s)
  # A reset starts only when there is time left for it to end before the run does.
  if [ "$nowt" -ge "$next_reset" ] && reset_over; then
    need=45; [ "$reset_kind" = leave ] && need=200
    if [ $(( end - nowt )) -ge "$need" ]; then
      reset_dials=$(dials)
      resets=$((resets + 1)); save_counts
      if [ "$reset_kind" = restart ]; then restart_reset; reset_kind=leave
      else leave_reset; reset_kind=restart; fi
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

kill "$sampler_pid" 2>/dev/null || true
wait "$sampler_pid" 2>/dev/null || true
sampler_pid=""
status=0
settled_end=0
if alive; then
  say "== mix stopped at $(elapsed) s; waiting (up to 240 s) for the daemon to settle"
  deadline=$(( $(date +%s) + 240 ))
  until settled; do
    if ! alive || [ "$(date +%s)" -ge "$deadline" ]; then break; fi
    sleep 2
  done
  if alive && settled; then
    say "== after the mix, the link up and no client:"
    quiet_sample && settled_end=1
  else
    say "FAULT: the daemon did not come back to a working data call within 240 s"
    status=1
  fi
fi
if ! alive; then
  say "FAULT: the daemon died; board exit $(cat "$work/exit" 2>/dev/null || echo '(running)'); last of its output:"
  tail -n 20 "$work/stdout" 2>/dev/null | tee -a "$log"
  status=1
fi
[ -e "$work/stalls" ] && { say "FAULT: a module that left the bus was not power-cycled (see $actions)"; status=1; }

last_fds=$(awk 'END {print $2}' "$work/samples")
last_rss=$(awk 'END {print $3}' "$work/samples")
say "== summary over $(elapsed) s"
say "$(awk '{if (NR == 1 || $2 < fmin) fmin = $2; if ($2 > fmax) fmax = $2;
              if (NR == 1 || $3 < rmin) rmin = $3; if ($3 > rmax) rmax = $3; h = $4}
             END {printf "descriptors min %d max %d; VmRSS min %d max %d kB; VmHWM %d kB", fmin, fmax, rmin, rmax, h}' "$work/samples")"
say "first vs last (the link up, no client): descriptors $first_fds -> $last_fds, VmRSS $first_rss -> $last_rss kB"
say "$(awk -v a="$failed_away" 'END {printf "requests sent %d, answered %d, refused %d, failed %d (%d while a module that had left the bus was not yet power-cycled); events %d; resets %d", $7, $8, $9, $10, a, $11, $12}' "$work/samples")"
if [ "$settled_end" -eq 1 ] && [ "$last_fds" -gt "$first_fds" ]; then
  say "FAULT: the daemon holds $(( last_fds - first_fds )) descriptors more than at the start"
  ls -l "/proc/$daemon/fd" 2>/dev/null | tee -a "$log"
  status=1
fi
if [ "$status" -eq 0 ]; then say "== passed"; else say "== FAILED"; fi
say "== log $log"
exit "$status"
