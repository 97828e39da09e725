// The programme's audio: 16-bit stereo PCM in blocks, without gaps, from a given moment on.
#ifndef CLIENT_INPUT_AUDIO_INPUT_H
#define CLIENT_INPUT_AUDIO_INPUT_H

#include "client/input/audio_decoder.h"
#include "client/input/av_ptr.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

inline constexpr size_t kAudioBlockSamples = 1024; // per channel

struct audio_input {
    std::unique_ptr<audio_decoder> decoder;
    resampler_ptr resampler;
    frame_ptr format;        // a frame as the resampler expects it
    frame_ptr held;          // decoded, not yet in the queue
    int rate = 0;            // of the PCM
    int64_t end_us = 0;      // of the held frame
    int64_t begin_us = 0;    // of the file's first frame
    int64_t origin_us = 0;   // the moment of the first sample that is given out
    int64_t placed = 0;      // samples queued since the origin, silence that is due included
    int64_t silence_due = 0; // samples to queue before the held frame
    int64_t skip_due = 0;    // samples to leave out of the frames to come
    bool drained = false;
    unsigned tail_blocks = 0;   // blocks of silence given out at the end
    std::vector<int16_t> queue; // both channels interleaved
    size_t queue_read = 0;
};

// Opens the audio of a file and decodes its first frame. Where the video's file is the same one,
// the streams share its clock. throws `failure`.
std::unique_ptr<audio_input> audio_input_open(const std::string &path, media_file &video_file);

// Gives the moment, on the file's clock, at which the first block is to begin: what lies before it
// is left out, what is missing after it is silence. Call once, before the first block.
void audio_input_start_at(audio_input &audio, int64_t origin_us);

// Fills one block; the last one ends in silence, and a block of silence follows it to push the
// encoder's overlap out. returns false at the end.
// throws `failure` for what cannot be read.
bool audio_input_next(audio_input &audio, std::span<int16_t, kAudioBlockSamples * 2> block);

#endif // CLIENT_INPUT_AUDIO_INPUT_H
