// Arithmetic rules of the four-lane single-precision forms.
//
// Every product and every sum is rounded to single by itself. No multiply
// may be fused with an add: SSE2 has no fused instruction, but GCC treats
// the intrinsics as plain vector arithmetic and would contract them if a
// build enabled an instruction set that has one. What forbids it is
// -ffp-contract=off, which the build passes to every library unit along
// with -fno-fast-math (QB_FP_FLAGS in the top-level CMakeLists.txt). The
// checks below stop a fast-math build, or one that evaluates single
// arithmetic in a wider format, from compiling these forms at all.
#pragma once

#include <cfloat>

#include <emmintrin.h>

#if defined(__FAST_MATH__)
#error "the single-precision resamplers need IEEE arithmetic: no fast-math"
#endif
static_assert(FLT_EVAL_METHOD == 0,
              "single-precision steps must round to single, not wider");
