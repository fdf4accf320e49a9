#!/bin/sh
# Installs everything the library, its tests and its tools need on a fresh
# Debian machine. Run as root.
set -eu
export DEBIAN_FRONTEND=noninteractive
pkgs="g++ cmake make pkg-config libjpeg62-turbo-dev libpng-dev libexif-dev \
libraw-dev libgtest-dev libjpeg-turbo-progs libimage-exiftool-perl binutils"
missing=""
for p in $pkgs; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" ||
        missing="$missing $p"
done
if [ -n "$missing" ]; then
    apt-get update -qq
    # shellcheck disable=SC2086
    apt-get install -y -qq --no-install-recommends $missing
fi
