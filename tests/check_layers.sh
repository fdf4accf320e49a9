#!/bin/sh
# Calls run downward only: a unit includes headers of its own folder and of
# lower layers, never of a sibling folder in its own layer or of a higher
# one. Layers, lowest first (folders on one line share a layer).
set -eu
src="${1:-$(dirname "$0")/../src}"
layers="common
resample
pipeline transform
metadata png raw
core framing"

layer_of() {
    printf '%s\n' "$layers" | awk -v d="$1" '{ for (i = 1; i <= NF; i++) if ($i == d) print NR }'
}

bad=0
for dir in "$src"/*/; do
    folder=$(basename "$dir")
    own=$(layer_of "$folder")
    if [ -z "$own" ]; then
        echo "src/$folder: folder has no layer; add it to tests/check_layers.sh and ARCHITECTURE.md"
        bad=1; continue
    fi
    for f in "$dir"*; do
        grep -n '^#include "' "$f" | while IFS= read -r line; do
            target=$(printf '%s\n' "$line" | sed 's/^[0-9]*:#include "\([^"]*\)".*/\1/')
            case "$target" in
            qbimage.h) continue ;;
            */*) to=${target%%/*} ;;
            *) echo "src/$folder/$(basename "$f"): include \"$target\" without its folder"; echo x >&3; continue ;;
            esac
            [ "$to" = "$folder" ] && continue
            theirs=$(layer_of "$to")
            if [ -z "$theirs" ] || [ "$theirs" -ge "$own" ]; then
                echo "src/$folder/$(basename "$f"): includes $target (layer ${theirs:-?} is not below $own)"
                echo x >&3
            fi
        done 3>>"${TMPDIR:-/tmp}/qb_layers.$$"
    done
done
if [ -s "${TMPDIR:-/tmp}/qb_layers.$$" ]; then bad=1; fi
rm -f "${TMPDIR:-/tmp}/qb_layers.$$"
[ "$bad" -eq 0 ] && echo "includes run downward"
exit "$bad"
