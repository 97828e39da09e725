#include "aacenc/filterbank.h"

#include "aacenc/encoder_state.h"
#include "aacenc/fft.h"
#include "aacenc/filterbank_vector.h"
#include "aacenc/transform_stages.h"

#include <algorithm>

void transform_plain(const int16_t *cur, int32_t *spec, const int16_t *prev)
{
    fold_and_twiddle(cur, prev, spec);
    AACENC_gCmplxFft(spec, kFftPoints);
    post_twiddle(spec);
}

// A checked build runs the portable transform, which checks its ranges.
static bool takes_vectors()
{
#ifdef TDMBREC_CHECKED
    return false;
#else
    return vector_transform_available();
#endif
}

void buffer2freq(const int16_t *cur, int32_t *spec, const int16_t *prev, uint32_t frame_counter)
{
    if (frame_counter == 0) {
        std::fill_n(spec, kFrameLines, 0);
    } else if (takes_vectors()) {
        transform_vector(cur, spec, prev);
    } else {
        transform_plain(cur, spec, prev);
    }
}
