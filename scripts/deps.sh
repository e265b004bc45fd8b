#!/usr/bin/env bash
# Installs what building and testing need on a Debian machine, and the packages
# named as arguments, only what is missing.
set -euo pipefail
want=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev busybox
      iproute2 util-linux procps dpkg-dev file groff-base python3
      mosquitto mosquitto-clients libmosquitto-dev openssl "$@")
missing=()
for p in "${want[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq "${missing[@]}" >/dev/null
fi
