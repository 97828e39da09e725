// For units that compute in single precision: the bytes of a file depend on how it rounds, so that
// builds which round differently are refused.
#ifndef MP4MUX_MOOV_SINGLE_PRECISION_H
#define MP4MUX_MOOV_SINGLE_PRECISION_H

#include <cfloat>

static_assert(FLT_EVAL_METHOD == 0, "build with single-precision arithmetic, not x87");

#if defined(__FAST_MATH__) || defined(__RECIPROCAL_MATH__) || defined(__ASSOCIATIVE_MATH__)
#error "build without -Ofast, -ffast-math and -funsafe-math-optimizations"
#endif

#endif // MP4MUX_MOOV_SINGLE_PRECISION_H
