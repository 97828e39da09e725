// The frames that the muxer's benchmarks write: 30 pictures a second with a key frame each second,
// and AAC frames of 340 bytes at 48 kHz, in the order of their times.
#ifndef BENCH_PROGRAMME_FRAMES_H
#define BENCH_PROGRAMME_FRAMES_H

#include "mp4mux/mp4_mux.h"

#include <cstdint>
#include <vector>

inline constexpr uint32_t kPictureBytes = 3000; // about 1 Mbit/s with the audio

inline constexpr uint8_t kAvcRecord[] = {1,    0x42, 0xC0, 0x1E, 0xFF, 0xE1, 0,    10,   0x67,
                                         0x42, 0xC0, 0x1E, 0xDA, 0x05, 0x07, 0xE8, 0x40, 0x10,
                                         1,    0,    4,    0x68, 0xCE, 0x3C, 0x80};
inline constexpr uint8_t kAudioConfig[] = {0x11, 0x90};

struct frame_source {
    uint32_t picture_bytes = kPictureBytes; // on average; a key frame has six times a plain one
    uint32_t pictures = 0;
    uint32_t audio_frames = 0;
    uint64_t media_bytes = 0;

    // The next frame. Its bytes are in one buffer that all frames share.
    mp4_mux_putstream_t next()
    {
        static const std::vector<uint8_t> payload(1 << 20, 0x5A);
        const uint32_t picture_ms = static_cast<uint32_t>(uint64_t{pictures} * 1000 / 30);
        const uint32_t audio_ms = static_cast<uint32_t>(uint64_t{audio_frames} * 1024000 / 48000);
        mp4_mux_putstream_t frame = {.m_pbyData = payload.data()};
        if (picture_ms <= audio_ms) {
            const bool is_key = pictures % 30 == 0;
            const uint32_t plain_bytes =
                picture_bytes * 5 / 6; // 29 of them and a key frame a second
            frame.m_iType = MUX_TYPE_VIDEO;
            frame.m_uiTimeStamp = picture_ms;
            frame.m_uiFlags = is_key ? MUX_FRAME_KEY : 0;
            frame.m_iDataSize = static_cast<int32_t>(
                is_key ? plain_bytes * 6 : plain_bytes / 2 + pictures * 977 % plain_bytes);
            pictures++;
        } else {
            frame.m_iType = MUX_TYPE_AUDIO;
            frame.m_uiTimeStamp = audio_ms;
            frame.m_iDataSize = 340;
            audio_frames++;
        }
        media_bytes += static_cast<uint32_t>(frame.m_iDataSize);
        return frame;
    }
};

#endif // BENCH_PROGRAMME_FRAMES_H
