// An AAC stream coded by the encoder itself, without the recorder around it.
#ifndef CLIENT_AAC_STREAM_H
#define CLIENT_AAC_STREAM_H

#include "aacenc/aac_enc.h"

#include <array>
#include <cstdint>
#include <span>
#include <vector>

struct aac_settings {
    int rate = 0;     // Hz
    int channels = 0; // 1 or 2
    int bit_rate = 0; // bit/s, of all channels
    bool raw = false; // bare access units in place of ADTS frames
    bool tns = false;
    bool pns = false;
    bool mpeg2 = false; // announced by the ADTS frames
};

struct aac_stream {
    aac_settings settings;
    void *encoder = nullptr;
    std::array<uint8_t, AACENC_OUTPUT_BYTES> unit;

    aac_stream() = default;
    aac_stream(const aac_stream &) = delete;
    aac_stream &operator=(const aac_stream &) = delete;
    ~aac_stream();
};

// Opens the encoder. throws `failure`, in words, for what it does not code.
void aac_stream_open(aac_stream &stream, const aac_settings &settings);

// Codes one frame: interleaved samples, AACENC_FRAME_SAMPLES of each channel.
// returns the access unit, or the ADTS frame; it stays until the next call. throws `failure`.
std::span<const uint8_t> aac_stream_encode(aac_stream &stream, std::span<const int16_t> frame);

// The header that makes bare access units, one after the other, a stream of their own.
// source: adif_header() of ISO/IEC 14496-3, 1.A.2
std::vector<uint8_t> adif_header(const aac_settings &settings);

#endif // CLIENT_AAC_STREAM_H
