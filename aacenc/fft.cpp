#include "aacenc/fft.h"

#include <array>
#include <cstddef>
#include <cstring>

#include "aacenc/filterbank_tables.h"
#include "aacenc/fixed_point.h"

static constexpr int32_t kPoints = 512;
static constexpr int32_t kQuarterWave = 256; // table entry of the sine that belongs to cosine 0
static constexpr int32_t kSqrtHalf_q31 = 1518500224;

// a, b := a + (re, im), a - (re, im)
static void butterfly(int32_t *a, int32_t *b, int32_t re, int32_t im)
{
    b[0] = sub_s32(a[0], re);
    b[1] = sub_s32(a[1], im);
    a[0] = add_s32(a[0], re);
    a[1] = add_s32(a[1], im);
}

// The places of two points that trade theirs in the bit-reversed order.
struct Swap {
    uint16_t low;
    uint16_t high;
};

static constexpr auto kSwaps = [] {
    std::array<Swap, 240> swaps = {}; // the other 32 of the 512 points stay
    size_t count = 0;
    for (uint32_t i = 0; i < kPoints; i++) {
        uint32_t reversed = 0;
        for (uint32_t bit = 1; bit < kPoints; bit *= 2)
            reversed = reversed * 2 + ((i & bit) != 0);
        if (i < reversed)
            swaps[count++] = {static_cast<uint16_t>(2 * i), static_cast<uint16_t>(2 * reversed)};
    }
    return swaps;
}();

static void reverse_bits(int32_t *data)
{
    constexpr size_t kPointBytes = 2 * sizeof(int32_t);
    for (const Swap &swap : kSwaps) {
        int32_t point[2];
        std::memcpy(point, data + swap.low, kPointBytes);
        std::memcpy(data + swap.low, data + swap.high, kPointBytes);
        std::memcpy(data + swap.high, point, kPointBytes);
    }
}

// The first two stages: twiddles 1 and -j only.
static void transform_quads(int32_t *data, int32_t n)
{
    for (int32_t *p = data; p != data + 2 * n; p += 8) {
        butterfly(p, p + 2, p[2], p[3]);
        butterfly(p + 4, p + 6, p[6], p[7]);
        butterfly(p, p + 4, p[4], p[5]);
        butterfly(p + 2, p + 6, p[7], sub_s32(0, p[6]));
    }
}

void AACE_FFT_sInnerLoop_Stg2(int32_t *data, int32_t groups, int32_t c_q31)
{
    for (int32_t *p = data; p != data + 16 * groups; p += 16) {
        butterfly(p, p + 8, p[8], p[9]);
        const int32_t sum1 = mul_q31(add_s32(p[11], p[10]), c_q31);
        const int32_t difference1 = mul_q31(sub_s32(p[11], p[10]), c_q31);
        butterfly(p + 2, p + 10, sum1, difference1);
        butterfly(p + 4, p + 12, p[13], sub_s32(0, p[12]));
        const int32_t sum3 = mul_q31(add_s32(p[15], p[14]), c_q31);
        const int32_t difference3 = mul_q31(sub_s32(p[15], p[14]), c_q31);
        butterfly(p + 6, p + 14, difference3, sub_s32(0, sum3));
    }
}

int32_t *AACE_FFT_sInnerLoop(int32_t *data, const int32_t *table, int32_t span, int32_t stride)
{
    int32_t *a = data;
    int32_t *b = data + 2 * span;
    butterfly(a, b, b[0], b[1]);
    butterfly(a + span, b + span, b[span + 1], sub_s32(0, b[span]));
    const int32_t *cosine = table;
    const int32_t *sine = table + kQuarterWave;
    for (int32_t k = 1; k < span / 2; k++) {
        cosine += stride;
        sine -= stride;
        a += 2;
        b += 2;
        // W = cos - j sin
        const int32_t re = mul_add_q31(b[0], *cosine, b[1], *sine);
        const int32_t im = mul_sub_q31(b[1], *cosine, b[0], *sine);
        butterfly(a, b, re, im);
        // A quarter turn on: -jW
        const int32_t turned_re = mul_sub_q31(b[span + 1], *cosine, b[span], *sine);
        const int32_t turned_im = mul_add_q31(b[span], *cosine, b[span + 1], *sine);
        butterfly(a + span, b + span, turned_re, sub_s32(0, turned_im));
    }
    return data + 4 * span;
}

void AACENC_gCmplxFft(int32_t *data, int32_t n)
{
    AACENC_CHECK(n == kPoints);
    reverse_bits(data);
    transform_quads(data, n);
    AACE_FFT_sInnerLoop_Stg2(data, n / 8, kSqrtHalf_q31);
    for (int32_t span = 8; span < n; span *= 2)
        for (int32_t *group = data; group != data + 2 * n;)
            group = AACE_FFT_sInnerLoop(group, CPLX_COEFF, span, 512 / span);
}
