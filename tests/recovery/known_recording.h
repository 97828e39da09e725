// Recordings whose frames are known, made with the encoder and the muxer.
#ifndef TESTS_RECOVERY_KNOWN_RECORDING_H
#define TESTS_RECOVERY_KNOWN_RECORDING_H

#include "tests/support/normal_stop.h"

#include <vector>

inline constexpr size_t kHeadBytes = 36; // of the file, before the first frame

struct recording_options {
    const char *name;
    bool is_made = false; // its pictures, else those of the sample programme
    int slices = 1;       // of a made picture; 0: from 1 to 5
    int slice_bytes = 4000;
    bool has_sets = false; // in band, in made pictures after delimiters
    int32_t sample_rate = 48000;
    int32_t channels = 2; // 0: no sound
    int32_t bit_rate = 64000;
    int32_t pns = 0, tns = 0, mid_side = 0;
    int lead = 0; // sounds before the pictures of their time; negative: after
    int pictures = 90;
    int jitter_ms = 0; // of the pictures' times
};

struct known_recording {
    recording_options how;
    muxer_settings settings;
    std::vector<muxed_frame> frames;
    Bytes finished; // by the normal stop
};

known_recording make_known_recording(const recording_options &how);

Bytes programme_sets(); // the parameter sets of the sample programme, with start codes

#endif // TESTS_RECOVERY_KNOWN_RECORDING_H
