#!/bin/sh
# Builds the library and makes thumbnails of generated sample photos.
set -eu
cd "$(dirname "$0")/.."
sh scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$(nproc 2>/dev/null || echo 2)" --target qbimage-demo
./build/qbimage-demo demo-out
