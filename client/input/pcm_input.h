// The PCM of a file as the encoder takes it: 16 bits, interleaved, in frames of the encoder's size,
// at the file's own sampling rate and with its own channels.
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
    resampler_ptr converter; // of the sample format alone
    frame_ptr held;          // decoded, not yet in the queue
    int rate = 0;
    int channels = 0;
    int format = -1;
    std::vector<int16_t> queue;
    size_t queue_read = 0;
    uint64_t samples = 0; // per channel, read so far
    std::string fault;    // why nothing more could be read; empty at a sound end
};

// Opens the audio of a file. throws `failure`.
std::unique_ptr<pcm_input> pcm_input_open(const std::string &path);

// Fills a frame; silence follows the last sample. returns the samples per channel in it, 0 at the
// end, also where the file breaks off. throws `failure` for what cannot be coded.
size_t pcm_input_next(pcm_input &pcm, std::span<int16_t> frame);

#endif // CLIENT_INPUT_PCM_INPUT_H
