// The transform of buffer2freq behind the first frame, written plainly for any kind of number: the
// ones that ship must equal it bit for bit, and bounds that hold for it hold for them.
//
// A kind of number has `-`, `+`, `-` of two, and the functions fold_samples and product_q31.
#ifndef TESTS_AACENC_PLAIN_FILTERBANK_H
#define TESTS_AACENC_PLAIN_FILTERBANK_H

#include <cstdint>
#include <utility>
#include <vector>

#include "aacenc/filterbank_tables.h"

// (a * window_a + b * window_b) >> 28, the windows in Q29.
inline int32_t fold_samples(int16_t a, int32_t window_a, int16_t b, int32_t window_b)
{
    return static_cast<int32_t>((int64_t{a} * window_a + int64_t{b} * window_b) >> 28);
}

// a * b with b in Q31, rounded down to an even number.
inline int32_t product_q31(int32_t a, int32_t b_q31)
{
    return static_cast<int32_t>((int64_t{a} * b_q31) >> 32) * 2;
}

template <typename Number>
struct PlainPoint {
    Number re;
    Number im;
};

using PlainFactor = PlainPoint<int32_t>; // Q31

template <typename Number>
PlainPoint<Number> times(const PlainPoint<Number> &z, const PlainFactor &t)
{
    return {product_q31(z.re, t.re) - product_q31(z.im, t.im),
            product_q31(z.im, t.re) + product_q31(z.re, t.im)};
}

// before + 2j sin(-2 pi / 2048) * current
inline PlainFactor next_factor(const PlainFactor &before, const PlainFactor &current)
{
    constexpr int32_t kTwiceSin = -13176773;
    return {before.re - product_q31(current.im, kTwiceSin),
            before.im + product_q31(current.re, kTwiceSin)};
}

// The folded sequence: the current frame backwards, then the previous one.
template <typename Number, typename Sample>
std::vector<Number> plain_fold(const Sample *cur, const Sample *prev)
{
    std::vector<Number> u(1024);
    for (size_t i = 0; i < 512; i++) {
        const int32_t rise = MDCT_WINDOW[i];
        const int32_t fall = MDCT_WINDOW[1023 - i];
        u[512 + i] = fold_samples(prev[1023 - i], fall, prev[i], -rise);
        u[511 - i] = fold_samples(cur[1023 - i], rise, cur[i], fall);
    }
    return u;
}

template <typename Number>
std::vector<PlainPoint<Number>> plain_pre_twiddle(const std::vector<Number> &u)
{
    std::vector<PlainPoint<Number>> z(512);
    PlainFactor before = {2147477962, 4941293};
    PlainFactor t = {2147483015, -1647099};
    for (size_t m = 0; m < 512; m++) {
        z[m] = times(PlainPoint<Number>{u[2 * m], u[1023 - 2 * m]}, t);
        before = std::exchange(t, next_factor(before, t));
    }
    return z;
}

template <typename Point>
void plain_reverse_bits(std::vector<Point> &z)
{
    for (size_t i = 0; i < 512; i++) {
        size_t reversed = 0;
        for (size_t bit = 0; bit < 9; bit++) {
            reversed |= (i >> bit & 1) << (8 - bit);
        }
        if (i < reversed) {
            std::swap(z[i], z[reversed]);
        }
    }
}

// z turned as in butterfly k, by e^(-j pi k / span). The products of an angle beyond a quarter turn
// are those of the mirrored one with their signs changed.
template <typename Number>
PlainPoint<Number> plain_turn(const PlainPoint<Number> &z, size_t k, size_t span)
{
    const bool mirrored = 2 * k > span;
    const size_t entry = (mirrored ? span - k : k) * (512 / span);
    const int32_t cosine = CPLX_COEFF[entry];
    const int32_t sine = CPLX_COEFF[256 - entry];
    if (k == 0) {
        return z;
    }
    if (2 * k == span) {
        return {z.im, -z.re};
    }
    if (span == 4) { // sqrt(1/2) multiplies the sum
        const PlainPoint<Number> sum = {product_q31(z.im + z.re, 1518500224),
                                        product_q31(z.im - z.re, 1518500224)};
        return mirrored ? PlainPoint<Number>{sum.im, -sum.re} : sum;
    }
    if (mirrored) {
        return {product_q31(z.im, sine) - product_q31(z.re, cosine),
                -(product_q31(z.im, cosine) + product_q31(z.re, sine))};
    }
    return {product_q31(z.re, cosine) + product_q31(z.im, sine),
            product_q31(z.im, cosine) - product_q31(z.re, sine)};
}

// One stage of the FFT: span 1, 2, 4 ... 256.
template <typename Number>
void plain_stage(std::vector<PlainPoint<Number>> &z, size_t span)
{
    for (size_t i = 0; i < 512; i++) {
        if (i & span) {
            continue;
        }
        const PlainPoint<Number> a = z[i];
        const PlainPoint<Number> b = plain_turn(z[i + span], i & (span - 1), span);
        z[i] = {a.re + b.re, a.im + b.im};
        z[i + span] = {a.re - b.re, a.im - b.im};
    }
}

template <typename Number>
std::vector<Number> plain_post_twiddle(const std::vector<PlainPoint<Number>> &z)
{
    std::vector<Number> lines(1024);
    PlainFactor before = {2147473540, 6588386};
    PlainFactor t = {2147483647, 0};
    for (size_t k = 0; k < 256; k++) {
        const PlainPoint<Number> low = times(z[k], t);
        before = std::exchange(t, next_factor(before, t));
        const PlainPoint<Number> x = z[511 - k]; // times the conjugate of t
        lines[2 * k] = low.re;
        lines[1023 - 2 * k] = -low.im;
        lines[2 * k + 1] = product_q31(x.re, t.re) + product_q31(x.im, t.im);
        lines[1022 - 2 * k] = product_q31(x.im, t.re) - product_q31(x.re, t.im);
    }
    return lines;
}

template <typename Number, typename Sample>
std::vector<Number> plain_transform(const Sample *cur, const Sample *prev)
{
    std::vector<PlainPoint<Number>> z = plain_pre_twiddle(plain_fold<Number>(cur, prev));
    plain_reverse_bits(z);
    for (size_t span = 1; span < 512; span *= 2) {
        plain_stage(z, span);
    }
    return plain_post_twiddle(z);
}

#endif // TESTS_AACENC_PLAIN_FILTERBANK_H
