// The decoded audio of one file, frame by frame.
#ifndef CLIENT_INPUT_AUDIO_DECODER_H
#define CLIENT_INPUT_AUDIO_DECODER_H

#include "client/input/adts_frames.h"
#include "client/input/av_ptr.h"
#include "client/input/loss.h"
#include "client/input/media_file.h"

#include <memory>
#include <string>
#include <vector>

struct audio_decoder {
    std::unique_ptr<media_file> file;
    codec_ptr codec;
    adts_frames frames;   // between the file and its clock, for sound in this form
    unsigned damaged = 0; // packets that could not be decoded
    int64_t packet_us = 0, packet_end_us = 0; // the last packet on the clock's line
    std::vector<loss> losses;                 // on the clock's line
};

// returns: the decoder of a file's audio
// throws: `failure`
std::unique_ptr<audio_decoder> audio_decoder_open(const std::string &path);
std::unique_ptr<audio_decoder> audio_decoder_of(std::unique_ptr<media_file> file);

// returns: the next frame that holds samples; null at the end, and while the file's clock waits for
//          the video
// throws: `failure` when the file breaks off
frame_ptr audio_decoder_next(audio_decoder &decoder);

#endif // CLIENT_INPUT_AUDIO_DECODER_H
