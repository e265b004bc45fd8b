# Sourced by the by-hand benchmarks: the simulated board (EC200T) in a fresh
# work folder, ended with everything listed in `pids` when the script exits.
#   board_start CONFIGURATION DAEMON [ARGS...]   sets `work` and `board_pid`
#   wait_for PATTERN FILE SECONDS                 FILE is in `work`; exits on time-out
board_pid=""
pids=()
board_cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  # The board ends by the signal: its status is not the script's.
  [ -n "$board_pid" ] && kill -TERM "$board_pid" 2>/dev/null && { wait "$board_pid" 2>/dev/null || true; }
  rm -rf "$work"
}

board_start() {
  work="$(mktemp -d "/tmp/zolvin_$(basename "$0" .sh).XXXXXX")"
  trap board_cleanup EXIT
  printf '%b' "$1" >"$work/zolvin_4g.conf"
  shift
  "$build/tools/simboard/zolvin_simboard" --work "$work" --family ec200t \
    --conf "$work/zolvin_4g.conf" -- "$@" >/dev/null 2>&1 &
  board_pid=$!
}

wait_for() {
  local until=$(( $(date +%s) + $3 ))
  until grep -q "$1" "$work/$2" 2>/dev/null; do
    [ "$(date +%s)" -lt "$until" ] || { echo "$(basename "$0"): no '$1' in $2 after $3 s" >&2; exit 1; }
    sleep 0.1
  done
}
