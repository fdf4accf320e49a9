#!/bin/sh
# Installs everything the library, its tests and its tools need on a fresh
# Debian machine. Run as root.
set -eu
export DEBIAN_FRONTEND=noninteractive
# The library: libjpeg, libpng, libexif, LibRaw. Tests and tools: GoogleTest,
# the reference tools the tests compare against (jpegtran, exiftool), clang
# with its fuzzer runtime, the command line's parser and JSON writer, and
# Debian's Python with cffi, Dask and pytest; Google Benchmark and matplotlib
# for the benchmark suite.
pkgs="g++ cmake make pkg-config libjpeg62-turbo-dev libpng-dev libexif-dev \
libraw-dev libgtest-dev libjpeg-turbo-progs libimage-exiftool-perl binutils \
clang libclang-rt-14-dev libcli11-dev nlohmann-json3-dev \
python3 python3-cffi python3-pytest python3-dask python3-distributed python3-venv \
libbenchmark-dev python3-matplotlib"
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
