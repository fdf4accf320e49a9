#!/bin/sh
# The benchmark suite: the library's command-line tool and C API against
# djpeg (the floor), GraphicsMagick, libvips, ImageMagick, jpegtran, exif,
# exiv2 and exiftool on inputs it generates itself. See bench/README.md.
#
#   sh bench/run.sh [--quick] [--build DIR] [--out DIR] [--runs N] [--only KEYS]
#
#   --build DIR   build folder (default build-bench; configured and built
#                 here when it holds no build yet)
#   --out DIR     results: results.md, results.json, chart.svg
#                 (default DIR/bench-results)
#   --runs N      timed rounds of each comparison (default 9; --quick 2)
#   --quick       tiny inputs and 2 rounds: only checks that everything runs
#   --only KEYS   comma-separated: thumb_24mp (with the in-process loop)
#                 thumb_12mp thumb_progressive startup three_sizes thumb_png
#                 turn metadata metadata_tree batch micro
#
# Peers are installed by `sh bench/install-peers.sh` (as root); a peer that
# is missing is skipped with a note. The driver is Debian's Python.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build-bench
prev=""
for arg in "$@"; do
    [ "$prev" = "--build" ] && build=$arg
    prev=$arg
done
case "$build" in /*) ;; *) build=$(pwd)/$build ;; esac

if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
# Only what the suite runs; up to date already when called from ctest.
targets="qbimage qbbench-gen qbbench-inproc"
grep -q '^QB_CLI:BOOL=ON' "$build/CMakeCache.txt" && targets="$targets qbimage_cli"
grep -q '^benchmark_DIR:PATH=/' "$build/CMakeCache.txt" && targets="$targets resample_bench"
# shellcheck disable=SC2086
cmake --build "$build" -j2 --target $targets >/dev/null

exec /usr/bin/python3 "$root/bench/run.py" --command "bench/run.sh" "$@" --build "$build"
