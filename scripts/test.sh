#!/usr/bin/env bash
# Builds with warnings as errors and runs every test: a GCC build with all unit
# and end-to-end tests (which also compiles the benchmarks, not run), a Clang
# build with AddressSanitizer and UndefinedBehaviorSanitizer running the same
# tests but the slow ones, a Clang build with ThreadSanitizer running them again
# (the sanitized daemon under the end-to-end tests too), then a short run
# of every fuzz target (scripts/fuzz.sh), the Debian package built and checked
# (scripts/package.sh), and the end-to-end tests against the arm64 daemon under
# qemu-user (scripts/cross-test.sh). The sanitizer build compiles while the GCC tests run, and
# the slow test runs beside all of it: the end-to-end tests spend most of their
# time waiting on the daemon's prescribed pauses.
# Usage: scripts/test.sh [quick]   (quick: the GCC build only)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
jobs=$(nproc)

configure() { # name, compiler, extra cmake args...
    local name=$1 cxx=$2; shift 2
    cmake -S . -B "build/$name" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" -DZOLVIN_WERROR=ON \
        -DZOLVIN_BENCH=OFF "$@" >/dev/null
}
tests() { # name, ctest args...
    local name=$1; shift
    ctest --test-dir "build/$name" -j "$jobs" --output-on-failure "$@"
}

echo "=== gcc (at ${SECONDS} s)"
configure gcc g++ -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZOLVIN_BENCH=ON
# The benchmarks named as targets too: without Google Benchmark (deps.sh
# installs it) CMake leaves them out, and the build then fails on their names.
benches=()
for source in bench/*_bench.cpp; do benches+=("$(basename "$source" .cpp)"); done
cmake --build "build/gcc" -j "$jobs" --target all "${benches[@]}"
if [ "${1:-}" = quick ]; then
    tests gcc
    exit 0
fi
mkdir -p build
trap 'kill $(jobs -p) 2>/dev/null || true' EXIT
# The slow recovery test (minutes of the daemon's own pauses) runs beside
# everything that follows; its result is read last.
tests gcc -R 'SlowTest' >build/gcc-slow.log 2>&1 &
gcc_slow=$!
tests gcc -E 'SlowTest' >build/gcc-tests.log 2>&1 &
gcc_tests=$!

echo "=== asan (building while the gcc tests run) (at ${SECONDS} s)"
configure asan clang++ -DCMAKE_BUILD_TYPE=Debug -DSANITIZE=address,undefined
cmake --build "build/asan" -j "$jobs"
gcc_status=0
wait "$gcc_tests" || gcc_status=$?
echo "=== gcc tests (at ${SECONDS} s)"
cat build/gcc-tests.log
[ "$gcc_status" -eq 0 ] || exit "$gcc_status"

echo "=== asan tests (at ${SECONDS} s)"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 tests asan -E 'SlowTest'

echo "=== tsan (at ${SECONDS} s)"
configure tsan clang++ -DCMAKE_BUILD_TYPE=Debug -DSANITIZE=thread
cmake --build "build/tsan" -j "$jobs"
# The end-to-end tests run the thread-sanitized daemon too: a report on its
# standard error fails the test that ran it.
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" tests tsan -E 'SlowTest'

echo "=== fuzz (at ${SECONDS} s)"
scripts/fuzz.sh

echo "=== package (at ${SECONDS} s)"
scripts/package.sh native

echo "=== arm64 daemon, end-to-end under qemu-user (at ${SECONDS} s)"
scripts/cross-test.sh arm64

slow_status=0
wait "$gcc_slow" || slow_status=$?
echo "=== gcc slow tests (at ${SECONDS} s)"
cat build/gcc-slow.log
exit "$slow_status"
