#!/usr/bin/env bash
# Unpacks Debian's libmosquitto (and the libssl it links) for a board's
# architecture into build/sysroot-ARCH, for a cross build of zolvin_4g_mqtt:
# installing them through multiarch would have to match the build machine's
# own libssl version for version, which it seldom does. Nothing is installed;
# the packages are fetched with apt-get download (the architecture is added
# to dpkg's list once, so that apt knows its packages).
# Usage: scripts/mosquitto-sysroot.sh armhf|arm64   prints the sysroot's path
set -euo pipefail
cd "$(dirname "$0")/.."
arch=${1:-}
case "$arch" in armhf|arm64) ;; *) echo "usage: $0 armhf|arm64" >&2; exit 2 ;; esac
root=$PWD/build/sysroot-$arch
if [ ! -f "$root/.done" ]; then
    if ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
        dpkg --add-architecture "$arch"
    fi
    if ! apt-cache show "libmosquitto-dev:$arch" >/dev/null 2>&1; then
        apt-get update -qq || true # a mirror of another architecture may lag; its lists are not needed
    fi
    rm -rf "$root" && mkdir -p "$root/debs"
    (cd "$root/debs" && apt-get download -qq "libmosquitto-dev:$arch" "libmosquitto1:$arch" "libssl3:$arch" >&2)
    for deb in "$root"/debs/*.deb; do dpkg-deb -x "$deb" "$root"; done
    # The packages' shared-library dependency records, for the package's Depends.
    mkdir -p "$root/shlibs"
    for deb in "$root"/debs/*.deb; do
        dpkg-deb --ctrl-tarfile "$deb" | tar -xOf - ./shlibs >>"$root/shlibs/all" 2>/dev/null || true
    done
    touch "$root/.done"
fi
echo "$root"
