#!/bin/sh
# The shared object exports exactly the documented names and nothing else.
set -eu
lib="$1"
expected="easy_image_create_thumb
image_create_framed_image
image_get_metadata
image_jpeg_jcache_clean
image_jpeg_jcache_init
image_jpeg_scale
image_jpeg_transform
image_metadata_get_xml_using_libexiv2
image_orientation2xform
image_raw_to_preview_jpeg
image_reverse_xform_table
image_xform_xform_table
utils_check_hw
utils_get_media_type"
actual=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TDRB]$/ {print $3}' | sed 's/@.*//' | sort -u)
extra=$(printf '%s\n' "$actual" | grep -vxF "$expected" || true)
if [ -n "$extra" ]; then
    echo "unexpected exports:"; printf '%s\n' "$extra"; exit 1
fi
soname=$(objdump -p "$lib" | awk '/SONAME/ {print $2}')
[ "$soname" = "libqbimage.so.1" ] || { echo "SONAME is '$soname'"; exit 1; }
echo "exports ok: $(printf '%s\n' "$actual" | wc -l) names"
