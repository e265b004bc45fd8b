#!/usr/bin/env bash
# Builds the Debian package for the build machine (native) or a board (armhf,
# arm64) from a size-minded release build (--static: fully static binaries),
# then checks it: its control fields and file list, its layout unpacked into a
# scratch root, the DHCP and init scripts under busybox sh, and, for a native
# package where systemd-analyze exists, the unit file.
# Usage: scripts/package.sh [native|armhf|arm64] [--static]
# Prints the package's path last.
set -euo pipefail
cd "$(dirname "$0")/.."
arch=${1:-native}
static=OFF
[ "${2:-}" = --static ] && static=ON
args=(-DCMAKE_BUILD_TYPE=MinSizeRel -DZOLVIN_TESTS=OFF -DZOLVIN_WERROR=ON -DZOLVIN_STATIC=$static)
case "$arch" in
    native) ;;
    armhf|arm64) args+=(-DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/$arch.cmake)
                 # The board's libmosquitto for zolvin_4g_mqtt (not with --static: Debian ships no static one).
                 [ "$static" = ON ] || args+=(-DZOLVIN_MOSQUITTO_ROOT="$(scripts/mosquitto-sysroot.sh "$arch")") ;;
    *) echo "package.sh: native, armhf or arm64, not '$arch'" >&2; exit 2 ;;
esac
build=build/pkg-$arch$([ "$static" = ON ] && echo -static || true)
cmake -S . -B "$build" -G Ninja "${args[@]}" >/dev/null
nice -n 10 cmake --build "$build" -j 2 >/dev/null
(cd "$build" && rm -f ./*.deb && cpack -G DEB >cpack.log 2>&1) || { cat "$build/cpack.log"; exit 1; }
deb=$(ls "$build"/zolvin-4g_*.deb)
# The telemetry program's package, where libmosquitto was there to build it.
mqtt_deb=$(ls "$build"/zolvin-4g-mqtt_*.deb 2>/dev/null || true)

fail() { echo "package.sh: $*" >&2; exit 1; }
dpkg-deb -I "$deb" | sed -n '/Architecture:/,$p'
want_arch=$([ "$arch" = native ] && dpkg --print-architecture || echo "$arch")
dpkg-deb -f "$deb" Architecture | grep -qx "$want_arch" || fail "not an $want_arch package"
dpkg-deb -f "$deb" Depends | grep -q busybox || fail "no dependency on busybox"
if [ "$static" = OFF ]; then
    dpkg-deb -f "$deb" Depends | grep -Eq '(^|, )libc6 \(>= [0-9.]+\)' || fail "no versioned libc6 dependency"
fi
[ "$(dpkg-deb --ctrl-tarfile "$deb" | tar -xOf - ./conffiles)" = "/etc/zolvin_4g.conf
/etc/init.d/zolvin_4g" ] || fail "conffiles are not the configuration and the init script"

root=$(mktemp -d /tmp/zolvin_pkgroot.XXXXXX)
trap 'rm -rf "$root"' EXIT
dpkg-deb -x "$deb" "$root"
files=$(cd "$root" && find . -type f -printf '%m %p\n' | sort)
echo "$files"
[ "$files" = "644 ./etc/zolvin_4g.conf
644 ./usr/lib/systemd/system/zolvin_4g.service
644 ./usr/share/man/man1/zolvin_4g_ctl.1.gz
644 ./usr/share/man/man8/zolvin_4g.8.gz
755 ./etc/init.d/zolvin_4g
755 ./usr/bin/zolvin_4g_ctl
755 ./usr/sbin/zolvin_4g
755 ./usr/share/udhcpc/zolvin_4g.script" ] || fail "unexpected files or modes"
file "$root/usr/sbin/zolvin_4g" | grep -q ', stripped' || fail "daemon not stripped"
grep -qx "ExecStart=/usr/sbin/zolvin_4g" "$root/usr/lib/systemd/system/zolvin_4g.service" ||
    fail "the unit does not start /usr/sbin/zolvin_4g"
for page in "$root"/usr/share/man/man*/*.gz; do
    [ -z "$(zcat "$page" | LC_ALL=C.UTF-8 groff -man -Tutf8 -ww -z 2>&1)" ] || fail "groff warns on $page"
done

if command -v busybox >/dev/null; then
    sh tests/dist/udhcpc_script_test.sh "$root/usr/share/udhcpc/zolvin_4g.script" </dev/null
    # The init script with a stand-in daemon (a script named as the daemon,
    # so that its process name matches) and its files in the scratch root.
    mkdir -p "$root/run"
    printf '#!/bin/sh\nwhile :; do sleep 1; done\n' >"$root/zolvin_4g"
    chmod +x "$root/zolvin_4g"
    sed -e "s|^DAEMON=.*|DAEMON=$root/zolvin_4g|" -e "s|/var/run/|$root/run/|" \
        -e "s|^LOG=.*|LOG=$root/run/log|" -e "s|/etc/default/|$root/default/|g" \
        "$root/etc/init.d/zolvin_4g" >"$root/init"
    busybox sh "$root/init" start
    busybox sh "$root/init" status | grep -q "is running" || fail "init script: not running after start"
    busybox sh "$root/init" stop
    if busybox sh "$root/init" status; then fail "init script: still running after stop"; fi
fi
# systemd-analyze verify on a unit NAME unpacked under TREE. It looks for the
# program and the manual page on this machine: the unit is pointed at TREE's.
verify_unit() { # TREE NAME
    [ "$arch" = native ] && command -v systemd-analyze >/dev/null || return 0
    sed "s|^ExecStart=|ExecStart=$1|" "$1/usr/lib/systemd/system/$2.service" >"$root/$2.service"
    MANPATH="$1/usr/share/man" systemd-analyze verify "$root/$2.service"
    echo "systemd-analyze verify ($2): passed"
}
verify_unit "$root" zolvin_4g
echo "daemon: $(stat -c %s "$root/usr/sbin/zolvin_4g") bytes stripped"

if [ -n "$mqtt_deb" ]; then
    echo "== $mqtt_deb"
    dpkg-deb -I "$mqtt_deb" | sed -n '/Architecture:/,$p'
    dpkg-deb -f "$mqtt_deb" Architecture | grep -qx "$want_arch" || fail "mqtt: not an $want_arch package"
    dpkg-deb -f "$mqtt_deb" Depends | grep -q 'zolvin-4g (= ' || fail "mqtt: no dependency on zolvin-4g"
    if [ "$static" = OFF ]; then
        dpkg-deb -f "$mqtt_deb" Depends | grep -Eq '(^|, )libmosquitto1( \(>= [0-9.]+\))?(,|$)' ||
            fail "mqtt: no dependency on libmosquitto1"
    fi
    [ "$(dpkg-deb --ctrl-tarfile "$mqtt_deb" | tar -xOf - ./conffiles)" = "/etc/zolvin_4g_mqtt.conf" ] ||
        fail "mqtt: the conffile is not its configuration"
    mroot=$root/mqtt
    dpkg-deb -x "$mqtt_deb" "$mroot"
    files=$(cd "$mroot" && find . -type f -printf '%m %p\n' | sort)
    echo "$files"
    [ "$files" = "644 ./etc/zolvin_4g_mqtt.conf
644 ./usr/lib/systemd/system/zolvin_4g_mqtt.service
644 ./usr/share/man/man8/zolvin_4g_mqtt.8.gz
755 ./usr/sbin/zolvin_4g_mqtt" ] || fail "mqtt: unexpected files or modes"
    file "$mroot/usr/sbin/zolvin_4g_mqtt" | grep -q ', stripped' || fail "mqtt: program not stripped"
    [ -z "$(zcat "$mroot/usr/share/man/man8/zolvin_4g_mqtt.8.gz" | LC_ALL=C.UTF-8 groff -man -Tutf8 -ww -z 2>&1)" ] ||
        fail "groff warns on zolvin_4g_mqtt.8"
    # The example configuration is all comments: the program must refuse it
    # for want of a broker, naming the key (a native package only runs here).
    if [ "$arch" = native ]; then
        out=$("$mroot/usr/sbin/zolvin_4g_mqtt" --config "$mroot/etc/zolvin_4g_mqtt.conf" 2>&1) && fail "mqtt: ran without a broker"
        echo "$out" | grep -q "configuration key broker: required" || fail "mqtt: unexpected refusal: $out"
        # Every key of the example, uncommented, is one the program takes.
        # (The broker this machine itself, so that nothing leaves it.)
        sed -n 's/^#\([a-z_]*=.*\)/\1/p' "$mroot/etc/zolvin_4g_mqtt.conf" | grep -v '^tls_\|^password_file' |
            sed 's/^broker=.*/broker=127.0.0.1/' >"$root/every_key.conf"
        out=$(timeout 1 "$mroot/usr/sbin/zolvin_4g_mqtt" --config "$root/every_key.conf" 2>&1; echo "status $?")
        echo "$out" | grep -q "configuration key" && fail "mqtt: the example's keys are refused: $out"
    fi
    verify_unit "$mroot" zolvin_4g_mqtt
    echo "mqtt: $(stat -c %s "$mroot/usr/sbin/zolvin_4g_mqtt") bytes stripped"
    echo "$mqtt_deb"
fi
echo "$deb"
