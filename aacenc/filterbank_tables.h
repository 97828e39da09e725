// Constants of the analysis filterbank.
#ifndef AACENC_FILTERBANK_TABLES_H
#define AACENC_FILTERBANK_TABLES_H

#include <cstdint>

// Rising half of the 2048-point sine window: 2^29 * sin(pi * (n + 1/2) / 2048), truncated. Q29.
extern const int32_t MDCT_WINDOW[1024];

// Quarter-wave cosine: 2^31 * cos(pi * k / 512), the cosine rounded to single precision, entry 0
// saturated. Q31; the sine of entry k is entry 256 - k.
extern const int32_t CPLX_COEFF[257];

// Every 16th, 8th, 4th and 2nd entry of CPLX_COEFF.
extern const int32_t CPLX_COEFF_16TH[17];
extern const int32_t CPLX_COEFF_8TH[33];
extern const int32_t CPLX_COEFF_4TH[65];
extern const int32_t CPLX_COEFF_2ND[129];

#endif // AACENC_FILTERBANK_TABLES_H
