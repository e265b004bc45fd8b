#!/bin/sh
# Runs the DHCP client script under busybox sh as udhcpc would, against fake
# ifconfig, route and resolvconf that record their arguments, and compares what
# it ran and the resolver file it wrote with what a board needs.
# Usage: udhcpc_script_test.sh SCRIPT   (busybox on PATH)
set -eu
script=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin"
for tool in ifconfig route resolvconf; do
    cat >"$work/bin/$tool" <<FAKE
#!/bin/sh
echo "$tool \$*" >>"$work/ran"
# One stale default route to delete, then none.
if [ "$tool \$1" = "route del" ]; then
    [ ! -e "$work/deleted" ] || exit 1
    : >"$work/deleted"
fi
[ "$tool \$1" != "resolvconf -a" ] || sed 's/^/  /' >>"$work/ran"
FAKE
    chmod +x "$work/bin/$tool"
done
failed=0

# event, expected commands, then the variables udhcpc would set
check() {
    event=$1 expect=$2
    shift 2
    rm -f "$work/ran" "$work/deleted"
    : >"$work/ran"
    if ! env -i PATH="$work/bin:/usr/bin:/bin" RESOLV_CONF="$work/resolv.conf" "$@" \
        busybox sh "$script" "$event" >/dev/null; then
        echo "FAIL $event: the script failed"; failed=1; return
    fi
    if [ "$(cat "$work/ran")" != "$expect" ]; then
        echo "FAIL $event: ran"; cat "$work/ran"; echo "wanted"; echo "$expect"; failed=1
    fi
}

# Without resolvconf the script writes the file itself.
mv "$work/bin/resolvconf" "$work/resolvconf"
echo "nameserver 192.0.2.53" >"$work/resolv.conf"
check deconfig "ifconfig usb0 0.0.0.0 up" interface=usb0
check bound "ifconfig usb0 10.64.0.2 netmask 255.255.255.0 broadcast 10.64.0.255 up
ifconfig usb0 mtu 1400
route del default dev usb0
route del default dev usb0
route add default gw 10.64.0.1 dev usb0 metric 0
route add default gw 10.64.0.254 dev usb0 metric 1" \
    interface=usb0 ip=10.64.0.2 subnet=255.255.255.0 broadcast=10.64.0.255 \
    router="10.64.0.1 10.64.0.254" dns="10.64.0.1 9.9.9.9" domain=lte.example mtu=1400
resolv="search lte.example
nameserver 10.64.0.1
nameserver 9.9.9.9"
[ "$(cat "$work/resolv.conf")" = "$resolv" ] || { echo "FAIL bound: resolv.conf"; cat "$work/resolv.conf"; failed=1; }
# A lease without router or servers leaves the routes and the resolver alone.
check renew "ifconfig usb0 10.64.0.3 up" interface=usb0 ip=10.64.0.3
[ "$(cat "$work/resolv.conf")" = "$resolv" ] || { echo "FAIL renew: resolv.conf changed"; failed=1; }
check leasefail "" interface=usb0

# With resolvconf the servers go to it, and the file is not replaced.
mv "$work/resolvconf" "$work/bin/resolvconf"
check bound "ifconfig usb0 10.64.0.2 up
resolvconf -a usb0.udhcpc
  nameserver 10.64.0.1" interface=usb0 ip=10.64.0.2 dns=10.64.0.1
[ "$(cat "$work/resolv.conf")" = "$resolv" ] || { echo "FAIL bound: resolv.conf replaced"; failed=1; }
check deconfig "ifconfig usb0 0.0.0.0 up
resolvconf -d usb0.udhcpc" interface=usb0

# No interface, or an event udhcpc does not send: a failure, and nothing run.
for bad in "bound ip=10.64.0.2" "bogus interface=usb0"; do
    : >"$work/ran"
    # shellcheck disable=SC2086
    if env -i PATH="$work/bin:/usr/bin:/bin" ${bad#* } busybox sh "$script" ${bad%% *} 2>/dev/null \
        || [ -s "$work/ran" ]; then
        echo "FAIL $bad: accepted"; failed=1
    fi
done
[ "$failed" -eq 0 ] && echo "all cases passed"
exit "$failed"
