#!/usr/bin/env bash
# Runs the end-to-end tests against another architecture's daemon: the daemon is
# cross-built with cmake/toolchains/ARCH.cmake and runs on the simulated board
# under qemu-user; the board, the module emulator and the tests are native.
# Usage: scripts/cross-test.sh arm64|armhf [ctest args...]
#   builds build/ARCH (the daemon) and build/ARCH-e2e (the native side)
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/emulator.sh
arch=${1:-}
emulator_for "$arch" || { echo "usage: $0 arm64|armhf [ctest args...]" >&2; exit 2; }
shift
jobs=$(nproc)

scripts/deps.sh "g++-$triple" qemu-user
emulator_for "$arch" # again: qemu may have been installed just now
daemon_dir=$PWD/build/$arch
cmake -S . -B "$daemon_dir" -G Ninja -DCMAKE_TOOLCHAIN_FILE="cmake/toolchains/$arch.cmake" \
    -DCMAKE_BUILD_TYPE=MinSizeRel -DZOLVIN_TESTS=OFF -DZOLVIN_WERROR=ON >/dev/null
cmake --build "$daemon_dir" -j "$jobs" --target zolvin_4g
command=$(IFS=';'; echo "${emulator[*]};$daemon_dir/zolvin_4g")

cmake -S . -B "build/$arch-e2e" -G Ninja -DZOLVIN_WERROR=ON -DZOLVIN_BENCH=OFF \
    -DZOLVIN_E2E_DAEMON_COMMAND="$command" -DZOLVIN_E2E_DAEMON_MEMORY="${guest_memory/ /;}" >/dev/null
cmake --build "build/$arch-e2e" -j "$jobs" --target e2e_tests
echo "=== end-to-end tests, daemon: ${command//;/ }"
# The telemetry program's tests run the native program against the daemon:
# under the emulator they would test nothing of the ARM build (which
# scripts/package.sh ARCH builds) and only cost time.
ctest --test-dir "build/$arch-e2e" -L e2e -E 'SlowTest|Mqtt' -j "$jobs" --output-on-failure "$@"
