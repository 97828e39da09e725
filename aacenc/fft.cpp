#include "aacenc/fft.h"

#include "aacenc/transform_stages.h"

void AACE_FFT_sInnerLoop_Stg2(int32_t *data, int32_t groups, int32_t c_q31)
{
    transform_eights(data, groups, c_q31);
}

void AACENC_gCmplxFft(int32_t *data, int32_t n)
{
    AACENC_CHECK(n == kFftPoints);
    transform_quads(data, n);
    AACE_FFT_sInnerLoop_Stg2(data, n / 8, kSqrtHalf_q31);
    transform_groups<8>(data, n);
    transform_groups<32>(data, n);
    transform_groups<128>(data, n);
}
