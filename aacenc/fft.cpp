#include "aacenc/fft.h"

#include <utility>

#include "aacenc/filterbank_tables.h"
#include "aacenc/fixed_point.h"

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

static void reverse_bits(int32_t *data, int32_t n)
{
    for (int32_t i = 1, reversed = 0; i < n; i++) {
        int32_t bit = n >> 1;
        for (; reversed & bit; bit >>= 1)
            reversed ^= bit;
        reversed |= bit;
        if (i < reversed) {
            std::swap(data[2 * i], data[2 * reversed]);
            std::swap(data[2 * i + 1], data[2 * reversed + 1]);
        }
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
    for (int32_t k = 1; k < span / 2; k++) {
        const int32_t cos_q31 = table[k * stride];
        const int32_t sin_q31 = table[kQuarterWave - k * stride];
        // W = cos - j sin
        int32_t *low = b + 2 * k;
        const int32_t low_re = add_s32(mul_q31(low[0], cos_q31), mul_q31(low[1], sin_q31));
        const int32_t low_im = sub_s32(mul_q31(low[1], cos_q31), mul_q31(low[0], sin_q31));
        butterfly(a + 2 * k, low, low_re, low_im);
        // Mirrored about a quarter turn: W = -cos - j sin
        int32_t *high = b + 2 * (span - k);
        const int32_t high_re = sub_s32(mul_q31(high[1], sin_q31), mul_q31(high[0], cos_q31));
        const int32_t high_im = add_s32(mul_q31(high[1], cos_q31), mul_q31(high[0], sin_q31));
        butterfly(a + 2 * (span - k), high, high_re, sub_s32(0, high_im));
    }
    butterfly(a + span, b + span, b[span + 1], sub_s32(0, b[span]));
    return b + 2 * span;
}

void AACENC_gCmplxFft(int32_t *data, int32_t n)
{
    reverse_bits(data, n);
    transform_quads(data, n);
    AACE_FFT_sInnerLoop_Stg2(data, n / 8, kSqrtHalf_q31);
    for (int32_t span = 8; span < n; span *= 2)
        for (int32_t *group = data; group != data + 2 * n;)
            group = AACE_FFT_sInnerLoop(group, CPLX_COEFF, span, 512 / span);
}
