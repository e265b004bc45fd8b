#!/usr/bin/env bash
# Builds with warnings as errors and runs every test: a GCC build with all unit
# and end-to-end tests, a Clang build with AddressSanitizer and
# UndefinedBehaviorSanitizer running the same tests, and a Clang build with
# ThreadSanitizer running the unit tests (the threaded transport and server).
# Usage: scripts/test.sh [quick]   (quick: the GCC build only)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
jobs=$(nproc)

run() { # name, compiler, extra cmake args..., then -- ctest args
    local name=$1 cxx=$2; shift 2
    local cmake_args=() ctest_args=()
    while [ $# -gt 0 ] && [ "$1" != "--" ]; do cmake_args+=("$1"); shift; done
    [ $# -gt 0 ] && shift
    ctest_args=("$@")
    echo "=== $name"
    cmake -S . -B "build/$name" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" -DZOLVIN_WERROR=ON \
        "${cmake_args[@]}" >/dev/null
    cmake --build "build/$name" -j "$jobs"
    ctest --test-dir "build/$name" -j "$jobs" --output-on-failure "${ctest_args[@]}"
}

run gcc g++ -DCMAKE_BUILD_TYPE=RelWithDebInfo --
[ "${1:-}" = quick ] && exit 0
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    run asan clang++ -DCMAKE_BUILD_TYPE=Debug -DSANITIZE=address,undefined --
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
    run tsan clang++ -DCMAKE_BUILD_TYPE=Debug -DSANITIZE=thread -- -L unit
