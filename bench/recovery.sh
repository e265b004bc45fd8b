#!/usr/bin/env bash
# How fast the daemon notices a module that left the bus and takes it back:
# runs it ("zolvin_4g debug", auto_dial=1) on the simulated board (EC200T),
# waits for the data call, then unplugs the module and plugs it back 3 s later,
# five rounds. A client on "@phone_server" asks code 51 and 912 in turn (one
# request at a time, 50 ms apart) while the module is away and 912 once it is
# back, and reads every event. Prints, per round and as medians over the
# rounds that saw them:
#   hang-up  -> the first status 13 answer to 51 or 912
#   return   -> event 1101 status 0 (module back)
#   return   -> 912 answering "Connected" (counted only once 912 had said
#               something else since the hang-up)
# The hang-up and the return are the board's own times of the unplug and the
# plug (board.log). A figure a round did not see within --timeout seconds of
# its hang-up is reported as not measured. Run by hand as root, not in CI.
#
#   bench/recovery.sh [--build DIR] [--daemon PATH] [--rounds N] [--away SECONDS]
#                     [--timeout SECONDS] [--interval SECONDS] [--verbose] [--keep]
# DIR: a CMake build tree (default build/gcc; configured if it has no cache);
# the daemon, the board and its tools are built in it first. PATH (default
# DIR's daemon) is the daemon measured, e.g. another branch's. --verbose prints
# every round's answers and events; --keep keeps the board's records.
# Exit status: 0 every figure measured in every round, 3 some were not, 1 the
# run itself failed (no board, no data call, no client), 2 a wrong argument.
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build/gcc"
daemon_bin=""
rounds=5
away=3
timeout=70
interval=0.05
verbose=0
keep=0
while [ $# -gt 0 ]; do
  case "$1" in
    --build) build="$(realpath -m "${2:?}")"; shift 2 ;;
    --daemon) daemon_bin="$(realpath "${2:?}")"; shift 2 ;;
    --rounds) rounds="${2:?}"; shift 2 ;;
    --away) away="${2:?}"; shift 2 ;;
    --timeout) timeout="${2:?}"; shift 2 ;;
    --interval) interval="${2:?}"; shift 2 ;;
    --verbose) verbose=1; shift ;;
    --keep) keep=1; shift ;;
    -h|--help) sed -n '2,25p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "recovery.sh: unknown argument '$1'" >&2; exit 2 ;;
  esac
done
case "$rounds" in ''|*[!0-9]*|0) echo "recovery.sh: --rounds needs a whole number above 0" >&2; exit 2 ;; esac
for value in "$away" "$timeout" "$interval"; do
  [[ "$value" =~ ^[0-9]+(\.[0-9]+)?$ ]] || { echo "recovery.sh: '$value' is not a number of seconds" >&2; exit 2; }
done
awk -v a="$away" -v t="$timeout" 'BEGIN { exit !(t > a) }' ||
  { echo "recovery.sh: --timeout must be longer than --away" >&2; exit 2; }
[ "$(id -u)" -eq 0 ] || { echo "recovery.sh: the simulated board needs root" >&2; exit 1; }
command -v python3 >/dev/null || { echo "recovery.sh: python3 is needed for the client" >&2; exit 1; }

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$build" --target zolvin_4g zolvin_simboard zolvin_fakecmd zolvin_boardctl -j 2 >/dev/null
daemon_bin="${daemon_bin:-$build/zolvin_4g}"

work="$(mktemp -d /tmp/zolvin_recovery.XXXXXX)"
board_pid=""
helper_pid=""
cleanup() {
  [ -n "$helper_pid" ] && kill -TERM "$helper_pid" 2>/dev/null && { wait "$helper_pid" 2>/dev/null || true; }
  # The board ends by the signal, and everything on it with it: its status is not this script's.
  [ -n "$board_pid" ] && kill -TERM "$board_pid" 2>/dev/null && { wait "$board_pid" 2>/dev/null || true; }
  if [ "$keep" -eq 1 ]; then echo "== records kept in $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# What the board recorded, for a run that went wrong.
show_records() {
  echo "== daemon's last output" >&2
  tail -n 20 "$work/stdout" 2>/dev/null | sed 's/^/   /' >&2 || true
  echo "== daemon's standard error" >&2
  tail -n 20 "$work/stderr" 2>/dev/null | sed 's/^/   /' >&2 || true
  echo "== board events" >&2
  sed 's/^/   /' "$work/board.log" >&2 2>/dev/null || true
}

printf 'apn_name=cmnet\nauto_dial=1\n' >"$work/zolvin_4g.conf"
"$build/tools/simboard/zolvin_simboard" --work "$work" --family ec200t \
  --conf "$work/zolvin_4g.conf" -- "$daemon_bin" debug >"$work/board.out" 2>&1 &
board_pid=$!

until=$(( $(date +%s) + 60 ))
until grep -q 'busybox udhcpc' "$work/calls.log" 2>/dev/null; do
  if ! kill -0 "$board_pid" 2>/dev/null; then
    echo "recovery.sh: the board ended before the data call:" >&2
    sed 's/^/   /' "$work/board.out" >&2
    show_records
    exit 1
  fi
  [ "$(date +%s)" -lt "$until" ] || { echo "recovery.sh: no data call after 60 s" >&2; show_records; exit 1; }
  sleep 0.2
done

# The client: one connection to the daemon's abstract socket, which lives in the
# board's network namespace (it is entered below); the board's control socket is
# a path, reached from there all the same.
cat >"$work/recovery.py" <<'PY'
import select, socket, statistics, struct, subprocess, sys, time

boardctl, control, board_log = sys.argv[1:4]
rounds = int(sys.argv[4])
away, limit, interval = (float(a) for a in sys.argv[5:8])
verbose = sys.argv[8] == "1"
WORKER = 51    # asks the module: answered 13 while the daemon knows it is gone
STATE = 912    # answered by the daemon itself
BACK = 1101    # event: status 1 the module left, 0 it is back
REPLY_WAIT = 10.0

def say(*words):
    print(*words, flush=True)

def request(code):
    return b"ZVS" + struct.pack(">H", code) + b"\0\0"

class Client:
    def __init__(self):
        self.sock = None
        self.pending = b""
        self.drops = 0  # connections the daemon closed: a request on one is not answered
        self.connect(10.0)

    def connect(self, within):
        deadline = time.monotonic() + within
        while True:
            s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            try:
                s.connect(b"\0phone_server")
                self.sock, self.pending = s, b""
                return
            except OSError as e:
                s.close()
                if time.monotonic() > deadline:
                    sys.exit(f"recovery.sh: cannot connect to @phone_server: {e}")
                time.sleep(0.1)

    def send(self, code):
        self.sock.sendall(request(code))

    def frames(self, until):
        """The frames that arrive before `until` (at least one look), each (time, code, status, text)."""
        got = []
        while True:
            left = max(0.0, until - time.monotonic())
            readable, _, _ = select.select([self.sock], [], [], left)
            if not readable:
                return got
            data = self.sock.recv(4096)
            now = time.monotonic()
            if not data:
                # The daemon serves one client and may drop it; take the name again.
                say(f"   (the daemon closed the connection at {now:.3f}: connecting again)")
                self.drops += 1
                self.connect(5.0)
                return got
            self.pending += data
            while len(self.pending) >= 8:
                if self.pending[:3] != b"ZVR":
                    sys.exit(f"recovery.sh: not a reply frame: {self.pending[:16]!r}")
                end = self.pending.find(b"\0", 7)
                if end < 0:
                    break
                code, status = struct.unpack(">HH", self.pending[3:7])
                got.append((now, code, status, self.pending[7:end].decode("utf-8", "replace")))
                self.pending = self.pending[end + 1:]
            if got:
                return got

def board(command):
    """Runs a control command; returns the board's own time of the change (board.log)."""
    before = time.monotonic()
    done = subprocess.run([boardctl, control, command], capture_output=True, text=True)
    after = time.monotonic()
    if done.returncode != 0:
        sys.exit(f"recovery.sh: board '{command}': {done.stdout.strip()} {done.stderr.strip()}")
    word = "unplugged" if command == "unplug" else "plugged"
    stamp = None
    with open(board_log) as log:
        for line in log:
            parts = line.split()
            if len(parts) >= 2 and parts[1] == word:
                stamp = int(parts[0]) / 1000.0
    # Only this change's line counts (the stamp is in whole ms).
    return stamp if stamp is not None and stamp >= before - 0.002 else after

client = Client()

def ask_until(code, accept, within):
    """Asks `code` every `interval` until an answer passes `accept`; False on time-out."""
    deadline = time.monotonic() + within
    while time.monotonic() < deadline:
        client.send(code)
        reply_by = min(deadline, time.monotonic() + REPLY_WAIT)
        while time.monotonic() < reply_by:
            answered = [f for f in client.frames(reply_by) if f[1] == code]
            if answered:
                if accept(answered[-1]):
                    return True
                break
        time.sleep(interval)
    return False

connected = lambda f: f[3] == "Connected"
if not ask_until(STATE, connected, 60.0):
    sys.exit('recovery.sh: 912 did not answer "Connected" within 60 s of the data call')

results = []  # per round: [hang-up -> 13, return -> 1101/0, return -> Connected], None where not seen
for n in range(1, rounds + 1):
    t_unplug = board("unplug")
    t_plug = None
    first13 = back = again = None
    left_connected = False
    seen = {}
    outstanding = None  # (code, give up at)
    cycle = 0
    next_send = time.monotonic()
    round_end = t_unplug + limit
    while True:
        now = time.monotonic()
        if t_plug is None and now >= t_unplug + away:
            t_plug = board("plug")
            continue
        if t_plug is not None and first13 is not None and back is not None and again is not None:
            break
        if now >= round_end:
            break
        if outstanding is not None and now >= outstanding[1]:
            key = f"{outstanding[0]} no answer in {REPLY_WAIT:g} s"
            seen[key] = seen.get(key, 0) + 1
            outstanding = None
        if outstanding is None and now >= next_send:
            # The worker code only while the module is away: once it is back,
            # requests of our own would hold the port the daemon is taking back.
            code = WORKER if t_plug is None and cycle % 2 == 0 else STATE
            cycle += 1
            client.send(code)
            outstanding = (code, now + REPLY_WAIT)
            continue
        wake = [round_end, outstanding[1] if outstanding else next_send]
        if t_plug is None:
            wake.append(t_unplug + away)
        drops = client.drops
        arrived = client.frames(min(wake))
        if client.drops != drops:
            outstanding = None
        for t, code, status, text in arrived:
            key = f"{code} {status}" + (f" {text}" if text else "")
            seen[key] = seen.get(key, 0) + 1
            if outstanding is not None and code == outstanding[0]:
                outstanding = None
                next_send = t + interval
            if code in (WORKER, STATE) and status == 13 and first13 is None:
                first13 = t - t_unplug
            if code == STATE and t_plug is None and not connected((t, code, status, text)):
                left_connected = True
            if code == STATE and t_plug is not None and t >= t_plug:
                if not connected((t, code, status, text)):
                    left_connected = True
                elif left_connected and again is None:
                    again = t - t_plug
            if code == BACK and status == 0 and t_plug is not None and t >= t_plug and back is None:
                back = t - t_plug
    # A request still unanswered is let finish: the daemon takes each read of its
    # socket as one frame, so two requests in flight could arrive as one.
    while outstanding is not None and time.monotonic() < outstanding[1]:
        if any(f[1] == outstanding[0] for f in client.frames(outstanding[1])):
            outstanding = None
    figure = lambda v: f"{v:.3f} s" if v is not None else f"not seen within {limit:g} s of the hang-up"
    note = "" if again is not None or left_connected else " (912 never left \"Connected\")"
    say(f"round {n}: hang-up -> 13 {figure(first13)}; return -> 1101/0 {figure(back)}; "
        f"return -> Connected {figure(again)}{note}")
    if verbose:
        for key in sorted(seen):
            say(f"   {seen[key]:4d} x {key}")
    results.append([first13, back, again])
    # The next round starts from a module the daemon has taken back.
    if n < rounds and not ask_until(STATE, connected, limit):
        say(f'   912 did not answer "Connected" within {limit:g} s of the round\'s end: going on')

say(f"== medians over {rounds} round{'s' if rounds > 1 else ''} (module away {away:g} s each)")
missing = False
labels = ["hang-up -> first status 13 answer (51 or 912)",
          "return  -> event 1101 status 0 (module back)",
          'return  -> 912 "Connected"']
for i, label in enumerate(labels):
    values = [r[i] for r in results if r[i] is not None]
    if len(values) < rounds:
        missing = True
    if values:
        extra = "" if len(values) == rounds else f"; not measured in {rounds - len(values)}"
        say(f"   {label:48s} {statistics.median(values):8.3f} s  ({len(values)} of {rounds} rounds{extra})")
    else:
        say(f"   {label:48s} not measured: no round saw it within {limit:g} s of its hang-up")
sys.exit(3 if missing else 0)
PY

status=0
nsenter --net="/proc/$board_pid/ns/net" python3 "$work/recovery.py" \
  "$build/tools/simboard/zolvin_boardctl" "$work/control.sock" "$work/board.log" \
  "$rounds" "$away" "$timeout" "$interval" "$verbose" &
helper_pid=$!
wait "$helper_pid" || status=$?
helper_pid=""
if ! kill -0 "$board_pid" 2>/dev/null; then
  echo "recovery.sh: the board ended during the run (exit $(cat "$work/exit" 2>/dev/null || echo '?'))" >&2
  show_records
  [ "$status" -ne 0 ] || status=1
elif [ "$status" -ne 0 ] && [ "$status" -ne 3 ]; then
  show_records
fi
exit "$status"
