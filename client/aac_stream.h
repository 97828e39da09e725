// An AAC stream made by the encoder without the recorder.
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
    bool raw = false; // bare access units instead of ADTS frames
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

// Opens the encoder.
// throws: `failure`; its sentence names a setting that the encoder does not support
void aac_stream_open(aac_stream &stream, const aac_settings &settings);

// Encodes one frame.
// in: interleaved samples, AACENC_FRAME_SAMPLES of each channel
// returns: the access unit or ADTS frame, valid until the next call
// throws: `failure`
std::span<const uint8_t> aac_stream_encode(aac_stream &stream, std::span<const int16_t> frame);

// The header that makes a sequence of bare access units a stream.
// source: adif_header() of ISO/IEC 14496-3, 1.A.2
std::vector<uint8_t> adif_header(const aac_settings &settings);

#endif // CLIENT_AAC_STREAM_H
