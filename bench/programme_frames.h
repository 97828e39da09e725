// The frames that the muxer's benchmarks write: pictures 30 times a second with a key frame each
// second, and AAC frames of 340 bytes at 48 kHz, in the order of their times.
#ifndef BENCH_PROGRAMME_FRAMES_H
#define BENCH_PROGRAMME_FRAMES_H

#include "mp4mux/mp4_mux.h"

#include <cstdint>
#include <vector>

inline constexpr uint32_t kPictureBytes = 3000; // about 1 Mbit/s with the sound

inline constexpr uint8_t kAvcRecord[] = {1,    0x42, 0xC0, 0x1E, 0xFF, 0xE1, 0,    10,   0x67,
                                         0x42, 0xC0, 0x1E, 0xDA, 0x05, 0x07, 0xE8, 0x40, 0x10,
                                         1,    0,    4,    0x68, 0xCE, 0x3C, 0x80};
inline constexpr uint8_t kAudioConfig[] = {0x11, 0x90};

struct frame_source {
    uint32_t picture_bytes = kPictureBytes; // on the average; a key frame has six times as many
    uint32_t pictures = 0;
    uint32_t sounds = 0;
    uint64_t media_bytes = 0;

    // The next frame; its bytes lie in one buffer that all frames share.
    mp4_mux_putstream_t next()
    {
        static const std::vector<uint8_t> payload(1 << 20, 0x5A);
        const uint32_t picture_ms = static_cast<uint32_t>(uint64_t{pictures} * 1000 / 30);
        const uint32_t sound_ms = static_cast<uint32_t>(uint64_t{sounds} * 1024000 / 48000);
        mp4_mux_putstream_t frame = {.m_pbyData = payload.data()};
        if (picture_ms <= sound_ms) {
            const bool is_key = pictures % 30 == 0;
            const uint32_t plain = picture_bytes * 5 / 6; // in 30 pictures: 29 plain ones, a key
            frame.m_iType = MUX_TYPE_VIDEO;
            frame.m_uiTimeStamp = picture_ms;
            frame.m_uiFlags = is_key ? MUX_FRAME_KEY : 0;
            frame.m_iDataSize =
                static_cast<int32_t>(is_key ? plain * 6 : plain / 2 + pictures * 977 % plain);
            pictures++;
        } else {
            frame.m_iType = MUX_TYPE_AUDIO;
            frame.m_uiTimeStamp = sound_ms;
            frame.m_iDataSize = 340;
            sounds++;
        }
        media_bytes += static_cast<uint32_t>(frame.m_iDataSize);
        return frame;
    }
};

#endif // BENCH_PROGRAMME_FRAMES_H
