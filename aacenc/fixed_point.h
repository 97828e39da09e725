// Fixed-point helpers. A build with TDMBREC_CHECKED stops when a value leaves its range.
#ifndef AACENC_FIXED_POINT_H
#define AACENC_FIXED_POINT_H

#include <cstddef>
#include <cstdint>

#ifdef TDMBREC_CHECKED
#include <cstdio>
#include <cstdlib>

[[noreturn]] inline void aacenc_check_failed(const char *condition, const char *file, int line)
{
    std::fprintf(stderr, "%s:%d: range check failed: %s\n", file, line, condition);
    std::abort();
}

// Stops a checked build, in every build type, when `condition` does not hold.
#define AACENC_CHECK(condition)                                                                    \
    ((condition) ? static_cast<void>(0) : aacenc_check_failed(#condition, __FILE__, __LINE__))
#else
#define AACENC_CHECK(condition) static_cast<void>(0)
#endif

// The value, which fits in 32 bits.
constexpr int32_t narrow_s32(int64_t value)
{
    AACENC_CHECK(value == static_cast<int32_t>(value));
    return static_cast<int32_t>(value);
}

// The nearest 32-bit value.
constexpr int32_t sat32(int64_t value)
{
    return value > INT32_MAX   ? INT32_MAX
           : value < INT32_MIN ? INT32_MIN
                               : static_cast<int32_t>(value);
}

// A 32-bit value in a register: wider where that spares its extension before a product.
using word_s32 = int_fast32_t;

// The value, which fits in 32 bits.
constexpr word_s32 word_of(int64_t value)
{
    AACENC_CHECK(value == static_cast<int32_t>(value));
    return static_cast<word_s32>(value);
}

// a + b and a - b, which fit in 32 bits.
constexpr word_s32 add_s32(word_s32 a, word_s32 b)
{
    return word_of(static_cast<int64_t>(a) + b);
}

constexpr word_s32 sub_s32(word_s32 a, word_s32 b)
{
    return word_of(static_cast<int64_t>(a) - b);
}

// -a, which fits in 32 bits.
constexpr word_s32 negate_s32(word_s32 a)
{
    return sub_s32(0, a);
}

// 2 a, which fits in 32 bits.
constexpr word_s32 twice_s32(word_s32 a)
{
    return word_of(static_cast<word_s32>(static_cast<uint_fast32_t>(a) * 2));
}

// a + 2 b and a - 2 b, which fit in 32 bits, like 2 a.
struct sum_and_difference {
    word_s32 sum;
    word_s32 difference;
};

constexpr sum_and_difference add_sub_twice(word_s32 a, word_s32 b)
{
    const auto sum = static_cast<uint_fast32_t>(a) + 2 * static_cast<uint_fast32_t>(b);
    const auto difference = 2 * static_cast<uint_fast32_t>(a) - sum;
    return {word_of(static_cast<word_s32>(sum)), word_of(static_cast<word_s32>(difference))};
}

// The magnitude of a value, 2^31 for the lowest one.
constexpr uint32_t abs_u32(int32_t value)
{
    const uint32_t bits = static_cast<uint32_t>(value);
    return value < 0 ? 0U - bits : bits;
}

// a * b in 64 bits.
constexpr int64_t mul_s64(int32_t a, int32_t b)
{
    return static_cast<int64_t>(a) * b;
}

// The high 32 bits of a * b, rounded down.
constexpr word_s32 mulhi(word_s32 a, word_s32 b)
{
    return static_cast<word_s32>((static_cast<int64_t>(a) * b) >> 32);
}

// a * b, rounded down to an even number: the lowest bit of the product is lost.
constexpr word_s32 mul_q31(word_s32 a, word_s32 b_q31)
{
    return twice_s32(mulhi(a, b_q31));
}

// a * b in 64 bits, rounded down.
constexpr int64_t mul_q28(int64_t a, int32_t b_q28)
{
    return (a * b_q28) >> 28;
}

// a * b in 64 bits, rounded down.
constexpr int64_t mul_q29(int32_t a, int32_t b_q29)
{
    return mul_s64(a, b_q29) >> 29;
}

// a * c + b * d and a * c - b * d with the products of mul_q31; the results fit in 32 bits.
constexpr word_s32 mul_add_q31(word_s32 a, word_s32 c_q31, word_s32 b, word_s32 d_q31)
{
    return twice_s32(add_s32(mulhi(a, c_q31), mulhi(b, d_q31)));
}

constexpr word_s32 mul_sub_q31(word_s32 a, word_s32 c_q31, word_s32 b, word_s32 d_q31)
{
    return twice_s32(sub_s32(mulhi(a, c_q31), mulhi(b, d_q31)));
}

// The value over 2^28, rounded down, which fits in 32 bits. On a 32-bit processor the halves are
// shifted one by one: compilers would continue with 64 bits and multiply them in three products.
constexpr word_s32 over_2_28(int64_t value)
{
    AACENC_CHECK(value >> 28 == static_cast<int32_t>(value >> 28));
    if constexpr (sizeof(size_t) > sizeof(int32_t)) {
        return static_cast<word_s32>(value >> 28);
    } else {
        const auto high = static_cast<uint32_t>(static_cast<uint64_t>(value) >> 32);
        const auto low = static_cast<uint32_t>(value);
        return static_cast<int32_t>(high << 4 | low >> 28);
    }
}

// a * c + b * d and a * c - b * d of 16-bit samples, times 2^-28, rounded down.
constexpr word_s32 mul_add_q28(int16_t a, int32_t c_q28, int16_t b, int32_t d_q28)
{
    return over_2_28(mul_s64(a, c_q28) + mul_s64(b, d_q28));
}

constexpr word_s32 mul_sub_q28(int16_t a, int32_t c_q28, int16_t b, int32_t d_q28)
{
    return over_2_28(mul_s64(a, c_q28) - mul_s64(b, d_q28));
}

#endif // AACENC_FIXED_POINT_H
