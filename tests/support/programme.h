// The sample programme, as a broadcast player hands it to the recorder.
#ifndef TESTS_SUPPORT_PROGRAMME_H
#define TESTS_SUPPORT_PROGRAMME_H

#include <cstdint>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

struct Programme {
    std::vector<Bytes> access_units; // start-code form, parameter sets in front of IDR slices
    std::vector<int16_t> pcm;        // interleaved stereo, 48 kHz
};

constexpr int64_t kFrameUs = 1000000 / 30; // programme's video interval
constexpr size_t kPcmBufferBytes = 4096;   // one AAC frame

// Reads samples/programme.h264 and .wav.
const Programme &sample_programme();

// The time stamp (us) of an access unit and of a PCM buffer of kPcmBufferBytes.
int64_t video_time_us(size_t index);
int64_t audio_time_us(size_t index);

// The bytes of PCM buffer `index`, the last one padded with silence.
Bytes pcm_buffer(const Programme &programme, size_t index);
size_t pcm_buffer_count(const Programme &programme);

// The NAL units of start-code data, without start codes and trailing zeros.
std::vector<Bytes> split_nal_units(const Bytes &data);
// Joins NAL units with 4-byte start codes.
Bytes join_nal_units(const std::vector<Bytes> &units);

Bytes read_file(const std::string &path);

#endif // TESTS_SUPPORT_PROGRAMME_H
