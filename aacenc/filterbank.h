// The analysis filterbank: a long-block MDCT with the sine window.
#ifndef AACENC_FILTERBANK_H
#define AACENC_FILTERBANK_H

#include <cstdint>

// Transforms two frames of 1024 samples to -2 times the MDCT of the windowed 2048 samples, in units
// of the samples. The first frame since init yields zeros.
// in: cur: this frame
// in: prev: the previous frame
// in: frame_counter: 0 for the first frame
// out: spec: 1024 lines, magnitudes below 2^26
// source: ISO/IEC 14496-3, 4.6.11.3
void buffer2freq(const int16_t *cur, int32_t *spec, const int16_t *prev, uint32_t frame_counter);

// The transform of buffer2freq in portable code: in place in `spec`, with twiddle factors from a
// recurrence.
void transform_plain(const int16_t *cur, int32_t *spec, const int16_t *prev);

#endif // AACENC_FILTERBANK_H
