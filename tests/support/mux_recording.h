// One recording through the muxer's entry point: records with usual values, and shorthands for the
// operations.
#ifndef TESTS_SUPPORT_MUX_RECORDING_H
#define TESTS_SUPPORT_MUX_RECORDING_H

#include "tests/support/mux_callbacks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace mux_test {

class MuxTest : public testing::Test {
  protected:
    void SetUp() override
    {
        reset_world();
    }
    void TearDown() override
    {
        EXPECT_EQ(leftovers(), "");
    }
};

// Bytes from hexadecimal digits and texts in quotes: "00000008 'free'".
Bytes bytes(const std::string &notation);
std::string hex(const Bytes &bytes);
Bytes number(uint64_t value, size_t width = 4); // big-endian
uint32_t code(const char *characters);          // four of them, in memory order
Bytes operator+(Bytes a, const Bytes &b);

// H.264 parameter sets and an AudioSpecificConfig (AAC LC, 48 kHz, stereo).
inline const Bytes kSps = bytes("6742C01EDA0507E84010");
inline const Bytes kPps = bytes("68CE3C80");
inline const Bytes kAudioConfig = bytes("1190");

// The muxer's own cache, those of the recorder, one pool for all, or a few bytes each.
enum class cache_layout { own, recorder, pooled, tiny };

// A frame that was put, with the result.
struct put_frame {
    int32_t type;
    Bytes bytes;
    uint32_t time_ms;
    bool key;
    int32_t result;
};

struct recording {
    mp4_mux_init_t init;
    mp4_mux_input_t input;
    mp4_mux_closemem_t close_mem{};
    void *handle = nullptr;
    std::string output = "out.mp4";
    Bytes video_private = join_nal_units({kSps, kPps}), audio_private = kAudioConfig;
    int64_t estimate = 0;
    std::vector<put_frame> frames;

    // Scratch files in "/tmp/scratch", 32-bit callbacks unless with_64bit.
    explicit recording(bool with_64bit = false,
                       uint32_t flags = MUX_STREAM_VIDEO | MUX_STREAM_AUDIO);

    void set_cache(cache_layout layout);
    void lend_close_memory(int32_t bytes);
    int32_t open();
    int32_t put(int32_t type, const Bytes &bytes, uint32_t time_ms, bool key = false);

    // A frame of `size` bytes that depend on its time and size.
    int32_t video(uint32_t time_ms, size_t size, bool key = false);
    int32_t audio(uint32_t time_ms, size_t size);
    int32_t close();
    std::string message(int64_t *aux = nullptr);
};

// Checks that a finished file holds every frame that was put without an error, in order, with its
// bytes, its sync flag and (video that begins at 0) its time. A frame whose put failed may be there
// too.
// returns: the first difference; empty when there is none
std::string check_samples(const recording &r);

} // namespace mux_test

#endif // TESTS_SUPPORT_MUX_RECORDING_H
