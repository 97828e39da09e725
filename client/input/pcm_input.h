// The audio of a file as 16-bit interleaved PCM in frames of the encoder's size, with the file's
// own sampling rate and channels.
#ifndef CLIENT_INPUT_PCM_INPUT_H
#define CLIENT_INPUT_PCM_INPUT_H

#include "client/input/audio_decoder.h"
#include "client/input/av_ptr.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

struct pcm_input {
    std::unique_ptr<audio_decoder> decoder;
    resampler_ptr converter; // of the sample format only
    frame_ptr held;          // decoded, not yet in the queue
    int rate = 0;            // Hz
    int channels = 0;
    int format = -1;
    std::vector<int16_t> queue;
    size_t queue_read = 0;
    uint64_t samples = 0; // per channel, read so far
    std::string fault;    // why reading stopped; empty at the file's normal end
};

// Opens the audio of a file and decodes its first frame.
// returns: the input
// throws: `failure`
std::unique_ptr<pcm_input> pcm_input_open(const std::string &path);

// Fills a frame and pads the last one with silence.
// returns: the samples per channel in it; 0 at the end, also where the file breaks off
// throws: `failure` when the audio changes its form
size_t pcm_input_next(pcm_input &pcm, std::span<int16_t> frame);

#endif // CLIENT_INPUT_PCM_INPUT_H
