#!/bin/sh
# Installs what bench/run.sh compares the library with, and what it needs to
# run and draw: the peer tools (GraphicsMagick, libvips, ImageMagick, exif,
# exiv2, exiftool, GNU parallel), GNU time for peak memory, libjpeg-turbo's
# djpeg and jpegtran, Google Benchmark for the resampler micro-benchmarks and
# matplotlib for the chart. Debian packages only; run as root.
#
#   sh bench/install-peers.sh
#
# run.sh works without any peer: a tool that is missing is skipped with a
# note. Google Benchmark and matplotlib are also in the project's main
# dependency script, since the normal build and its test need them.
set -eu
export DEBIAN_FRONTEND=noninteractive
pkgs="graphicsmagick libvips-tools imagemagick exif exiv2 libimage-exiftool-perl \
parallel time libjpeg-turbo-progs libbenchmark-dev python3 python3-matplotlib"
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
