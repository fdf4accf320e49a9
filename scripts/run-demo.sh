#!/bin/sh
# Builds the library and the qbimage tool, writes sample photos and makes
# their thumbnails, a framed photo and their metadata in demo-out/.
set -eu
cd "$(dirname "$0")/.."
sh scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$(nproc 2>/dev/null || echo 2)" --target qbimage-samples qbimage_cli
qb=build/cli/qbimage
rm -rf demo-out
./build/qbimage-samples demo-out/photos
# Every photo into a 128 x 128 thumbnail, PNG over blue.
"$qb" batch demo-out/photos demo-out/thumbs --size 128x128 --jobs 2 --background 2060A0
# Three sizes of one photo from one decode, turned a quarter.
"$qb" scale demo-out/photos/landscape.jpg --mode fit-box --xform rot90 \
    1280x1280:demo-out/landscape-1280.jpg 320x320:demo-out/landscape-320.jpg \
    128x128:demo-out/landscape-128.jpg
# The landscape under the frame, in its 400 x 280 window.
"$qb" frame demo-out/photos/frame.png demo-out/photos/landscape.jpg \
    demo-out/landscape-framed.png --box 40,40,400,280
"$qb" meta --json demo-out/photos/*.jpg > demo-out/metadata.json
echo "demo-out/: thumbs/ (one per photo), landscape-*.jpg, landscape-framed.png, metadata.json"
ls demo-out/thumbs
