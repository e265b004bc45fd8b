#!/usr/bin/env bash
# Builds every libFuzzer target (clang, AddressSanitizer and
# UndefinedBehaviorSanitizer) in build/fuzz and runs each on a copy of its seed
# corpus kept in the build tree, so the source tree is never written. Any
# finding fails the script; the input that found it is left in
# build/fuzz/artifacts/.
# Usage: scripts/fuzz.sh SECONDS    run each target for SECONDS seconds
#        scripts/fuzz.sh --runs N   run each target for N inputs
#        scripts/fuzz.sh            the short run of scripts/test.sh (--runs 300000)
set -euo pipefail
cd "$(dirname "$0")/.."
case "${1:-}" in
--runs) limit="-runs=${2:?--runs needs a count}" what="${2} runs" ;;
'') limit=-runs=300000 what="300000 runs" ;;
*[!0-9]*) echo "usage: $0 [SECONDS | --runs N]" >&2; exit 2 ;;
*) limit="-max_total_time=$1" what="$1 s" ;;
esac
build=build/fuzz

cmake -S . -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DZOLVIN_WERROR=ON -DZOLVIN_TESTS=OFF -DZOLVIN_FUZZ=ON >/dev/null
cmake --build "$build" -j "$(nproc)" --target fuzz_all

mkdir -p "$build/artifacts"
# One target a core at a time: each writes its own log and status, read in order below.
run_target() { # executable
    local exe=$1 name=${1##*/fuzz_} max_len
    local corpus=$build/corpus/$name
    mkdir -p "$corpus"
    if [ -d "fuzz/corpus/$name" ]; then
        cp -n fuzz/corpus/"$name"/* "$corpus"/ 2>/dev/null || true
    fi
    # A request is one read of up to 1000 bytes, an SMS text a field of up
    # to 999; configuration lines are read in pieces of 1023 bytes.
    case $name in request) max_len=1000 ;; sms_submit) max_len=1002 ;; config_file) max_len=2100 ;; *) max_len=600 ;; esac
    local status=0
    UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 ASAN_OPTIONS=detect_leaks=1 \
        "$exe" "$limit" -max_len="$max_len" -print_final_stats=1 \
        -artifact_prefix="$build/artifacts/$name-" "$corpus" >"$build/fuzz_$name.log" 2>&1 || status=$?
    echo "$status" >"$build/fuzz_$name.status"
}
for exe in "$build"/fuzz/fuzz_*; do
    while [ "$(jobs -rp | wc -l)" -ge "$(nproc)" ]; do wait -n || true; done
    run_target "$exe" &
done
wait
for exe in "$build"/fuzz/fuzz_*; do
    name=${exe##*/fuzz_}
    log=$build/fuzz_$name.log
    echo "=== fuzz_$name: $what"
    if [ "$(cat "$build/fuzz_$name.status")" != 0 ]; then
        tail -n 40 "$log"
        echo "fuzz_$name: finding, input left in $build/artifacts/"
        exit 1
    fi
    grep -E '^(Done [0-9]+ runs|stat::(number_of_executed_units|average_exec_per_sec|new_units_added))' "$log"
done
