// The access units of an AAC stream, as an MP4 file holds them.
#ifndef CLIENT_INPUT_AAC_INPUT_H
#define CLIENT_INPUT_AAC_INPUT_H

#include "client/input/media_file.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

inline constexpr int kAacUnitSamples = 1024; // per channel

struct aac_input {
    std::unique_ptr<media_file> file;
    bool is_framed = false; // each unit follows an ADTS header
    int rate = 0;           // Hz
    int channels = 0;
    std::vector<uint8_t> config; // AudioSpecificConfig
    int64_t begin_us = 0;        // of the file's first packet
    int64_t last_us = 0;         // of the last packet read
    int64_t packets = 0;         // read so far
    packet_ptr packet;           // the next one to return
    packet_ptr given;            // holds the unit that the last call returned
};

// Opens the AAC of a file and reads its first access unit.
// in: the video's file, or null; if it is the same file, the streams share its clock
// returns: the input
// throws: `failure`
std::unique_ptr<aac_input> aac_input_open(const std::string &path, media_file *video_file);

// returns: the duration of this number of access units
int64_t aac_input_span_us(const aac_input &aac, int64_t units);

// returns: the next access unit, valid until the next call; nothing at the end
// throws: `failure` when the file cannot be read or the unit cannot be stored
std::optional<std::span<const uint8_t>> aac_input_next(aac_input &aac);

#endif // CLIENT_INPUT_AAC_INPUT_H
