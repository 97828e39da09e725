// The settings of a recording that no journal describes, and its decoder configuration.
#ifndef RECOVERY_RECORDER_SETTINGS_H
#define RECOVERY_RECORDER_SETTINGS_H

#include "journal/journal.h"

#include <cstdint>

// Fills the settings that the recorder gives to every recording.
void fill_recorder_settings(journal_settings_t *settings, int32_t sample_rate, int32_t channels);

// returns: the sampling index of a rate, or -1
// source: ISO/IEC 14496-3, Table 1.18
[[nodiscard]] int32_t sampling_index_of(int32_t sample_rate);

// returns: the rate of a sampling index, or 0
[[nodiscard]] int32_t sample_rate_of(int32_t sampling_index);

// The parameter sets of a picture.
struct picture_sets {
    const uint8_t *sps;
    uint32_t sps_bytes;
    const uint8_t *pps;
    uint32_t pps_bytes;
};

// returns: whether the picture has both, as the muxer requires them
[[nodiscard]] bool find_picture_sets(const uint8_t *bytes, int32_t count, picture_sets *sets);

// Makes the record of an avcC box.
// out: bytes: its length
// returns: the record, to be freed; null without memory
[[nodiscard]] uint8_t *make_avc_record(const picture_sets *sets, int32_t *bytes);

#endif // RECOVERY_RECORDER_SETTINGS_H
