#include "aacenc/channel_elements.h"

#include "aacenc/fixed_point.h"
#include "aacenc/noise_tables.h"

#include <algorithm>
#include <bit>

static constexpr int64_t kSilentEnergy = 20; // a top band up to here counts as silent
static constexpr uint32_t kNoiseEnergyOffset = 0x29800000U; // 41.5 in Q24

void DetermineChInfo(AacEncChInfo *ch_info0, AacEncChInfo *ch_info1, int32_t channels)
{
    if (channels == 1) {
        *ch_info0 = {.present = 1};
        *ch_info1 = {};
    } else {
        *ch_info0 = {.present = 1, .pair = 1, .firstOfPair = 1, .pairedChannel = 1};
        *ch_info1 = {.present = 1, .pair = 1, .firstOfPair = 0, .pairedChannel = 0};
    }
}

// returns: the sum of the squares, over 2^31
static int64_t band_energy(const int32_t *spectrum, int32_t lines)
{
    int64_t energy = 0;
    for (int32_t k = 0; k < lines; k++) {
        energy += mul_s64(spectrum[k], spectrum[k]) >> 31;
    }
    return energy;
}

static void clear_lines_from(int32_t *spectrum, int32_t line)
{
    std::fill(spectrum + line, spectrum + kFrameLines, 0);
}

// returns: log2 of a value of at least 1, Q26
static uint32_t log2_q26(uint32_t value)
{
    const int32_t leading_zeros = std::countl_zero(value);
    const uint32_t mantissa = value << leading_zeros;
    const uint32_t index = (mantissa >> 26) & 31; // the 5 bits below the leading one
    const uint32_t weight_q16 = (mantissa >> 10) & 0xFFFF;
    const uint32_t lower_q15 = AacLc_Enc_cLog2Table[index];
    const uint32_t upper_q15 = index == 31 ? 65536 : AacLc_Enc_cLog2Table[index + 1];
    const uint32_t fraction_q26 =
        ((lower_q15 - 32768) << 11) + (((upper_q15 - lower_q15) * weight_q16) >> 5);
    return (static_cast<uint32_t>(31 - leading_zeros) << 26) + fraction_q26;
}

// returns: floor(2 log2(energy) + 41.5), 0 for no energy
static int32_t noise_energy(uint32_t energy)
{
    return energy == 0 ? 0
                       : static_cast<int32_t>((log2_q26(energy) / 2 + kNoiseEnergyOffset) >> 24);
}

// returns: the first band, 0 excluded, that starts at or above the bandwidth
static int32_t first_noise_band(const AacEncCoderInfo *coder, const EncTfState *tf)
{
    if (tf->bwLines == 0) {
        return 0;
    }
    int32_t band = 1;
    while (band < tf->maxSfb && coder->swbOffset[band] < tf->bwLines) {
        band++;
    }
    return band;
}

void AACENC_CalcPNS(int32_t *spectrum, AacEncCoderInfo *coder, const uint8_t *band_widths,
                    const EncTfState *tf)
{
    std::fill_n(coder->noiseFlag, kMaxBands, 0);
    std::fill_n(coder->noiseEnergy, kMaxBands, 0);
    int64_t energy[kMaxBands];
    for (int32_t band = 0; band < tf->maxSfb; band++) {
        energy[band] = band_energy(spectrum + coder->swbOffset[band], band_widths[band]);
    }

    const int32_t start_band = first_noise_band(coder, tf);
    int32_t top = tf->maxSfb - 1;
    while (top > start_band && energy[top] <= kSilentEnergy) {
        top--;
    }
    clear_lines_from(spectrum, coder->swbOffset[top]);
    for (int32_t band = start_band; band < top; band++) {
        coder->noiseEnergy[band] = noise_energy(static_cast<uint32_t>(energy[band]));
        coder->noiseFlag[band] = 1;
    }
}

void MSEncode(int32_t *const *spectra, AacEncChInfo *ch_info0, AacEncChInfo *ch_info1,
              const AacEncCoderInfo *coder0, int32_t channels, const EncTfState *tf)
{
    if (channels != 2 || !ch_info0->present || !ch_info0->pair || !ch_info0->firstOfPair) {
        return;
    }
    ch_info0->commonWindow = 1;
    ch_info1->commonWindow = 1;
    ch_info0->ms.msMaskPresent = 1;
    std::fill_n(ch_info0->ms.msUsed, tf->maxSfb, 1);
    const int32_t lines = coder0->swbOffset[tf->maxSfb];
    for (int32_t k = 0; k < lines; k++) {
        const int32_t left_half = spectra[0][k] / 2;
        const int32_t right_half = spectra[1][k] / 2;
        spectra[0][k] = narrow_s32(add_s32(left_half, right_half));
        spectra[1][k] = narrow_s32(sub_s32(left_half, right_half));
    }
}
