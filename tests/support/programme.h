// The sample programme in the form that a broadcast player gives to the recorder.
#ifndef TESTS_SUPPORT_PROGRAMME_H
#define TESTS_SUPPORT_PROGRAMME_H

#include <cstdint>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

struct Programme {
    std::vector<Bytes> access_units; // start-code form, parameter sets before IDR slices
    std::vector<int16_t> pcm;        // interleaved stereo, 48 kHz
};

constexpr int kPicturesPerSecond = 30;
constexpr int kPcmSamplesPerSecond = 48000;
constexpr int kPcmBufferSamples = 1024; // per channel: one AAC frame
constexpr size_t kPcmBufferBytes = kPcmBufferSamples * 2 * sizeof(int16_t);
constexpr int64_t kFrameUs = 1000000 / kPicturesPerSecond;

// Reads samples/programme.h264 and .wav.
const Programme &sample_programme();

// returns: the time stamp of an access unit, and of a PCM buffer of kPcmBufferBytes
int64_t video_time_us(size_t index);
int64_t audio_time_us(size_t index);

// returns: one PCM buffer, the last one padded with silence
Bytes pcm_buffer(const Programme &programme, size_t index);
size_t pcm_buffer_count(const Programme &programme);

// returns: the NAL units of start-code data, without start codes and trailing zeros
std::vector<Bytes> split_nal_units(const Bytes &data);
// Joins NAL units with 4-byte start codes.
Bytes join_nal_units(const std::vector<Bytes> &units);

Bytes read_file(const std::string &path);

#endif // TESTS_SUPPORT_PROGRAMME_H
