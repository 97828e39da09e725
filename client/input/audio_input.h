// The programme's audio: 16-bit stereo PCM in blocks, without gaps, from a given time on.
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

// Other rates than the encoder's are resampled to this one (Hz).
inline constexpr int kDefaultRate = 48000;

struct audio_input {
    std::unique_ptr<audio_decoder> decoder;
    resampler_ptr resampler;
    frame_ptr format;         // a frame as the resampler expects it
    frame_ptr held;           // decoded, not yet in the queue
    int rate = 0;             // of the PCM, in Hz
    int64_t end_us = 0;       // of the held frame
    int64_t begin_us = 0;     // of the file's first frame
    int64_t origin_us = 0;    // time of the first sample that is returned
    int64_t placed = 0;       // samples queued since the origin, with the silence that is due
    int64_t silence_due = 0;  // samples to queue before the held frame
    int64_t skip_due = 0;     // samples to drop from the next frames
    int64_t waited = 0;       // samples of silence since the last frame, while the clock waits
    std::vector<loss> losses; // times from the origin on
    bool drained = false;
    unsigned tail_blocks = 0;   // blocks of silence returned at the end
    std::vector<int16_t> queue; // both channels interleaved
    size_t queue_read = 0;
};

// Takes the audio of a file and decodes its first frame.
// in: the video's file; if it is the same file, the streams share its clock
// returns: the input
// throws: `failure`
std::unique_ptr<audio_input> audio_input_of(std::unique_ptr<media_file> file,
                                            media_file &video_file);

// Sets the time at which the first block begins: samples before it are dropped, gaps after it are
// filled with silence. Call once, before the first block.
// in: a time on the file's clock
void audio_input_start_at(audio_input &audio, int64_t origin_us);

// returns: the time from the origin to the end of the last frame that is on the line
int64_t audio_input_end_us(const audio_input &audio);

// Fills one block. The last one is padded with silence, and a block of silence follows it because
// the encoder's overlap keeps one frame back.
// returns: false at the end
// throws: `failure` when the file cannot be read or resampled
bool audio_input_next(audio_input &audio, std::span<int16_t, kAudioBlockSamples * 2> block);

#endif // CLIENT_INPUT_AUDIO_INPUT_H
