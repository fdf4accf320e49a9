#!/bin/sh
# Lossless 90-degree turn of a 24-megapixel JPEG: image_jpeg_transform next
# to `jpegtran -perfect -rotate 90` on the same file. Not a test: it prints
# wall-clock and CPU figures (min / median over RUNS runs) and peak memory.
#
#   bench/transform_bench.sh            (RUNS=7, WIDTH=6000, HEIGHT=4000)
#   BUILD_DIR=/path/to/build RUNS=11 bench/transform_bench.sh
#
# It builds the shared library in BUILD_DIR (default build-bench) if needed,
# and compiles tools/transform_bench.cpp itself.
set -eu

root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build-bench}
runs=${RUNS:-7}
width=${WIDTH:-6000}
height=${HEIGHT:-4000}
work=$(mktemp -d /tmp/qbbench.XXXXXX)
trap 'rm -rf "$work"' EXIT INT TERM

command -v jpegtran >/dev/null || { echo "jpegtran not found" >&2; exit 1; }

if [ ! -f "$build/libqbimage.so" ]; then
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DQB_TESTS=OFF >/dev/null
fi
cmake --build "$build" --target qbimage -j2 >/dev/null
g++ -O2 -std=c++20 -I"$root/include" "$root/tools/transform_bench.cpp" \
    -o "$work/transform_bench" -L"$build" -lqbimage -ljpeg -Wl,-rpath,"$build"

src="$work/source.jpg"
"$work/transform_bench" gen "$width" "$height" "$src"
echo "source: ${width}x${height}, $(wc -c <"$src") bytes"

# time_runs NAME COMMAND...: RUNS timed runs after one warm-up run, each
# under /usr/bin/time (wall clock, user + system CPU, peak RSS). CPU time is
# the steadier figure on a shared machine.
time_runs() {
    name=$1
    shift
    "$@" >/dev/null 2>&1
    : >"$work/times"
    i=0
    while [ "$i" -lt "$runs" ]; do
        /usr/bin/time -f "%e %U %S %M" -a -o "$work/times" "$@" >/dev/null 2>&1
        i=$((i + 1))
    done
    awk -v name="$name" '
        function median(a, n) { return (n % 2) ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2 }
        function sortn(a, n,   i, j, t) {
            for (i = 2; i <= n; i++)
                for (j = i; j > 1 && a[j - 1] > a[j]; j--) { t = a[j]; a[j] = a[j - 1]; a[j - 1] = t }
        }
        { wall[NR] = $1; cpu[NR] = $2 + $3; if ($4 > rss) rss = $4 }
        END {
            sortn(wall, NR); sortn(cpu, NR)
            printf "%-30s runs %d  wall min %.2f / median %.2f s  cpu min %.2f / median %.2f s  peak RSS %d KiB\n",
                   name, NR, wall[1], median(wall, NR), cpu[1], median(cpu, NR), rss
        }' "$work/times"
}

time_runs "image_jpeg_transform (code 5)" "$work/transform_bench" run "$src" "$work/ours.jpg" 5
time_runs "jpegtran -perfect -rotate 90" jpegtran -perfect -rotate 90 -outfile "$work/ref.jpg" "$src"

# Both must hold the same coefficients, hence decode to the same pixels.
if djpeg -ppm "$work/ours.jpg" >"$work/ours.ppm" 2>/dev/null &&
   djpeg -ppm "$work/ref.jpg" >"$work/ref.ppm" 2>/dev/null; then
    if cmp -s "$work/ours.ppm" "$work/ref.ppm"; then
        echo "outputs decode to identical pixels"
    else
        echo "outputs DIFFER" >&2
        exit 1
    fi
fi
