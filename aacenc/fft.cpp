#include "aacenc/fft.h"

#include "aacenc/transform_stages.h"

void AACE_FFT_sInnerLoop_Stg2(int32_t *data, int32_t groups, int32_t c_q31)
{
    transform_eights(data, groups, c_q31);
}

int32_t *AACE_FFT_sInnerLoop(int32_t *data, const int32_t *table, int32_t span, int32_t stride)
{
    return transform_group(data, table, span, stride);
}

void AACENC_gCmplxFft(int32_t *data, int32_t n)
{
    AACENC_CHECK(n == kFftPoints);
    reverse_bits(data);
    transform_quads(data, n);
    AACE_FFT_sInnerLoop_Stg2(data, n / 8, kSqrtHalf_q31);
    for (int32_t span = 8; span < n; span *= 2) {
        for (int32_t *group = data; group != data + 2 * n;) {
            group = AACE_FFT_sInnerLoop(group, CPLX_COEFF, span, kFftPoints / span);
        }
    }
}
