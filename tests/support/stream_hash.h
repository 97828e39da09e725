// Hashes of the sample programme's streams, the same in every build. They change only with the
// output of the encoder or the muxer.
#ifndef TESTS_SUPPORT_STREAM_HASH_H
#define TESTS_SUPPORT_STREAM_HASH_H

#include <cstddef>
#include <cstdint>
#include <span>

// The audio: raw access units of the whole frames, stereo, 128000 bit/s.
inline constexpr uint64_t kProgrammeStreamHash = 0xb9348974d61266c3;

// The recording of the whole programme, sent in the order of its times.
inline constexpr uint64_t kProgrammeFileHash = 0xf88a44d3386368f4;

inline constexpr uint64_t kHashStart = 0xcbf29ce484222325;

// FNV-1a, continued from `hash`.
inline uint64_t stream_hash(uint64_t hash, std::span<const uint8_t> bytes)
{
    for (const uint8_t byte : bytes) {
        hash = (hash ^ byte) * 0x100000001b3;
    }
    return hash;
}

#endif // TESTS_SUPPORT_STREAM_HASH_H
