#!/bin/sh
# The shipped library is hardened: full RELRO (read-only relocations bound
# at load), the stack protector, and fortified libc calls where the build
# optimises.
set -eu
lib="$1"
fortify="${2:-1}"
readelf -lW "$lib" | grep -q GNU_RELRO || { echo "no RELRO segment"; exit 1; }
readelf -dW "$lib" | grep -Eq 'BIND_NOW|FLAGS.*NOW' || { echo "relocations not bound at load (no -z now)"; exit 1; }
syms=$(nm -D --undefined-only "$lib")
printf '%s\n' "$syms" | grep -q __stack_chk_fail || { echo "no stack protector"; exit 1; }
if [ "$fortify" = 1 ]; then
    printf '%s\n' "$syms" | grep -q '__.*_chk' || { echo "no fortified calls"; exit 1; }
fi
echo "hardening ok"
