# Sourced: how the daemon of another architecture runs here under qemu-user.
# emulator_for ARCH sets
#   triple        the cross toolchain's triple (arm64: aarch64-linux-gnu)
#   emulator      the words before the daemon's path: qemu-user with the cross
#                 libraries as the root it resolves the loader and libraries
#                 under (without a binfmt_misc handler, as in a container, the
#                 kernel cannot run the binary itself)
#   guest_memory  "LOW HIGH": the host addresses that hold all of the daemon's
#                 own memory. qemu is told where to put the guest (-B) and how
#                 much room it has (-R), so the daemon's resident pages can be
#                 told from the emulator's: those grow by 170 (arm) to 280 kB
#                 (aarch64) for each thread the guest ever started, and are never
#                 given back (qemu 7.2).
emulator_for() {
    local base=0x1000000000 room=0x100000000
    case "$1" in
    arm64) triple=aarch64-linux-gnu
           emulator=("$(command -v qemu-aarch64 || echo qemu-aarch64)" -B $base -R $room) ;;
    # A 32-bit guest has 4 GiB of room whatever -R says.
    armhf) triple=arm-linux-gnueabihf
           emulator=("$(command -v qemu-arm || echo qemu-arm)" -B $base) ;;
    *) return 1 ;;
    esac
    emulator+=(-L "/usr/$triple")
    guest_memory="$base $(printf '0x%x' $((base + room)))"
}
