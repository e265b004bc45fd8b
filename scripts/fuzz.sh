#!/usr/bin/env bash
# Builds every libFuzzer target (clang, AddressSanitizer and
# UndefinedBehaviorSanitizer) in build/fuzz and runs each for RUNS inputs on a
# copy of its seed corpus kept in the build tree, so the source tree is never
# written. Any finding fails the script; the input that found it is left in
# build/fuzz/artifacts/.
# Usage: scripts/fuzz.sh [RUNS]   (default: a short CI run; 10000000 for a long one)
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-500000}
build=build/fuzz

cmake -S . -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DZOLVIN_WERROR=ON -DZOLVIN_TESTS=OFF -DZOLVIN_FUZZ=ON >/dev/null
cmake --build "$build" -j "$(nproc)" --target fuzz_all

mkdir -p "$build/artifacts"
for exe in "$build"/fuzz/fuzz_*; do
    name=${exe##*/fuzz_}
    corpus=$build/corpus/$name
    mkdir -p "$corpus"
    if [ -d "fuzz/corpus/$name" ]; then
        cp -n fuzz/corpus/"$name"/* "$corpus"/ 2>/dev/null || true
    fi
    echo "=== fuzz_$name: $runs runs"
    log=$build/fuzz_$name.log
    if ! UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 ASAN_OPTIONS=detect_leaks=1 \
        "$exe" -runs="$runs" -max_len=600 -print_final_stats=1 \
        -artifact_prefix="$build/artifacts/$name-" "$corpus" >"$log" 2>&1; then
        tail -n 40 "$log"
        echo "fuzz_$name: finding, input left in $build/artifacts/"
        exit 1
    fi
    grep -E '^(Done [0-9]+ runs|stat::(number_of_executed_units|average_exec_per_sec|new_units_added))' "$log"
done
