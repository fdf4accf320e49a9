#!/bin/sh
# Installs the build into a temporary prefix and builds a small C host
# against it twice, through pkg-config and through find_package(qbimage),
# and runs it; then runs the installed tool.
# Usage: install_test.sh BUILD_DIR TESTS_DIR [EXTRA_CFLAGS]
set -eu
build=$1
here=$2
extra=${3:-}
tmp=$(mktemp -d /tmp/qbimage-install.XXXXXX)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix

cmake --install "$build" --prefix "$prefix" >"$tmp/install.log"

fail() { echo "install test: $*" >&2; exit 1; }

# The usual places: the header, the tool, the library with its SONAME links,
# the pkg-config file and the CMake package beside it.
test -f "$prefix/include/qbimage.h" || fail "no include/qbimage.h"
test -x "$prefix/bin/qbimage" || fail "no bin/qbimage"
lib=$(dirname "$(find "$prefix" -name 'libqbimage.so.1' | head -n 1)")
test -n "$lib" && test "$lib" != . || fail "no libqbimage.so.1"
test -L "$lib/libqbimage.so" || fail "no libqbimage.so link"
test -L "$lib/libqbimage.so.1" || fail "no libqbimage.so.1 link"
test -f "$lib/pkgconfig/qbimage.pc" || fail "no pkgconfig/qbimage.pc"
test -f "$lib/cmake/qbimage/qbimageConfig.cmake" || fail "no cmake/qbimage/qbimageConfig.cmake"
if find "$prefix" -name '*.a' | grep -q .; then fail "a static archive was installed"; fi

# pkg-config
export PKG_CONFIG_PATH="$lib/pkgconfig"
version=$(pkg-config --modversion qbimage)
flags=$(pkg-config --cflags --libs qbimage)
# shellcheck disable=SC2086
cc -std=c99 -Wall -Wextra -Werror $extra "$here/host/host.c" -o "$tmp/host-pc" $flags \
    -Wl,-rpath,"$lib"
mkdir "$tmp/run-pc"
got=$("$tmp/host-pc" "$tmp/run-pc") || fail "the pkg-config host failed"
test "$got" = "$version" || fail "header says $got, pkg-config $version"

# find_package
cmake -S "$here/host" -B "$tmp/host-build" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_FLAGS="$extra" >"$tmp/host-cmake.log" || { cat "$tmp/host-cmake.log"; fail "find_package"; }
cmake --build "$tmp/host-build" >"$tmp/host-build.log" || { cat "$tmp/host-build.log"; fail "host build"; }
mkdir "$tmp/run-cmake"
got=$("$tmp/host-build/qbimage_host" "$tmp/run-cmake") || fail "the find_package host failed"
test "$got" = "$version" || fail "header says $got, the package $version"

# The installed tool finds the installed library.
test "$("$prefix/bin/qbimage" --version)" = "qbimage $version" || fail "bin/qbimage --version"
echo "install test: 1 passed, 0 failed"
