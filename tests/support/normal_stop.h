// The file that a normal stop leaves after known frames.
#ifndef TESTS_SUPPORT_NORMAL_STOP_H
#define TESTS_SUPPORT_NORMAL_STOP_H

#include "mp4mux/mp4_mux.h"
#include "tests/support/programme.h"

#include <vector>

struct muxed_frame {
    int32_t type;
    uint32_t flags;
    uint32_t time_ms;
    int64_t offset; // in the file
    Bytes bytes;
};

// What the muxer is opened with. The pointers of the input are not used.
struct muxer_settings {
    uint32_t stream_flags;
    uint32_t options;
    mp4_mux_input_t input;
    Bytes video_configuration; // empty: in band
    Bytes audio_configuration;
};

// returns: those of the recorder, for stereo of 48 kHz
muxer_settings recorder_settings(const Bytes &video_configuration);

// A muxer's output "out.mp4" in memory, with the recorder's caches. Clears what was there.
mp4_mux_init_t memory_output();

// returns: the file of a normal stop after these frames; without sound, a frame of silence is added
Bytes normal_stop(const muxer_settings &settings, const std::vector<muxed_frame> &frames);

#endif // TESTS_SUPPORT_NORMAL_STOP_H
