// The cached bitstream against a plain array of bytes.
#include "mp4mux/bitstream.h"
#include "mp4mux/mux_context.h"
#include "tests/support/mux_recording.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>

using namespace mux_test;

namespace {

class Bitstream : public MuxTest {
  protected:
    mp4_mux_t mux = make_context(true);
    mp4_mux_bs_t bs = {.m_pstMux = &mux, .m_pstError = &mux.m_stLastError};
    uint8_t cache[64] = {};

    void TearDown() override
    {
        EXPECT_EQ(mp4_mux_close_bitstream_from_external_memory(&bs), 0);
        world.files.clear();
        MuxTest::TearDown();
    }
    void open(int32_t cache_bytes, bool with_file = true)
    {
        void *file = with_file ? open_file("f") : nullptr;
        mp4_mux_open_bitstream_from_external_memory(&bs, cache, cache_bytes, file);
    }
};

TEST_F(Bitstream, StaysInMemoryUntilItsCacheOverflows)
{
    open(4, false);
    bs.m_pszFileName = "table";
    EXPECT_EQ(mp4_mux_bs_write_bytes(&bs, "abcd", 4), 4);
    EXPECT_EQ(mp4_mux_bs_write_flush(&bs), 0);
    EXPECT_EQ(mp4_mux_bs_write_fseek_reset(&bs, 0), 0);
    EXPECT_EQ(bs.m_uiFill, 0u);
    EXPECT_THAT(world.opened, testing::IsEmpty());
    EXPECT_EQ(mp4_mux_bs_write_bytes(&bs, "efgh", 4), 4);
    EXPECT_EQ(mp4_mux_bs_write_fseek(&bs, 3), 0) << "a target in the cache";
    EXPECT_EQ(mp4_mux_bs_write_bytes(&bs, "Hi", 2), 2);
    EXPECT_EQ(world.files["table"].bytes, bytes("'efgH'"));
    EXPECT_EQ(bs.m_llFilePos + bs.m_uiFill, 5);
}

TEST_F(Bitstream, CarriesNumbersOfEveryWidthAcrossItsCache)
{
    const uint64_t values[] = {0, 1, 0, 63, 1u << 20, UINT64_MAX, uint64_t{1} << 63, 5};
    for (int32_t cache_bytes = 1; cache_bytes < 24; cache_bytes++) {
        open(cache_bytes);
        const uint8_t second = 2;
        mp4_mux_bs_write_be8(&bs, 0x101);
        mp4_mux_bs_write_1byte(&bs, &second);
        mp4_mux_bs_write_be16(&bs, 0xFF0304);
        mp4_mux_bs_write_be32(&bs, 0x05060708);
        mp4_mux_bs_write_be64(&bs, 0x090A0B0C0D0E0F10);
        mp4_mux_bs_write_le16(&bs, 0x1211);
        mp4_mux_bs_write_le32(&bs, 0x16151413);
        mp4_mux_bs_write_be24(&bs, 0x171819);
        mp4_mux_bs_write_le24(&bs, 0x1C1B1A);
        uint64_t previous = 0;
        for (const uint64_t value : values) {
            EXPECT_GT(mp4_mux_bs_write_value(&bs, value, &previous), 0);
        }
        EXPECT_GT(mp4_mux_bs_write_flush(&bs), 0);
        EXPECT_EQ(world.files["f"].bytes,
                  bytes("0102030405060708090A0B0C0D0E0F101112131415161718191A1B1C"
                        "00 02 01 7E 82FF7F 81808001 FDFFFFFFFFFFFFFFFF01 F5FFFFFFFFFFFFFFFF01"));
        EXPECT_EQ(mp4_mux_close_bitstream_from_external_memory(&bs), 0);
    }
}

TEST_F(Bitstream, ReportsFailuresOfFixedWidthWritersInTheRecordOnly)
{
    open(4);
    mp4_mux_bs_write_be32(&bs, 0);
    EXPECT_EQ(world.calls[call::fwrite], 0u) << "a full cache waits for the next byte";
    world.fail = {call::fwrite, 1, true, true};
    EXPECT_EQ(mp4_mux_bs_write_be32(&bs, 1), 0);
    EXPECT_STREQ(mux.m_stLastError.m_szMessage, "can't write file(bs_write_1byte)");
    EXPECT_EQ(mp4_mux_bs_write_be8(&bs, 1), MUX_ERR_WRITE);
    EXPECT_EQ(mp4_mux_bs_write_bytes(&bs, "x", 1), MUX_ERR_WRITE);
    EXPECT_EQ(mp4_mux_bs_write_fseek_reset(&bs, 0), MUX_ERR_WRITE);
    EXPECT_STREQ(mux.m_stLastError.m_szMessage, "can't write file(bs_write_flush)");
    world.fail = {call::fseek, world.calls[call::fseek] + 1};
    EXPECT_EQ(mp4_mux_bs_write_flush(&bs), MUX_ERR_WRITE) << "the file could not go back";
    EXPECT_EQ(mp4_mux_bs_write_flush(&bs), 4) << "the cache kept its bytes";
    EXPECT_EQ(world.files["f"].bytes, bytes("00000000"));
}

TEST_F(Bitstream, NeedsACacheAndPositionsWithinItsCallbacksRange)
{
    open(0);
    EXPECT_EQ(mp4_mux_bs_write_bytes(&bs, "x", 1), MUX_ERR_INVALID);
    EXPECT_STREQ(mux.m_stLastError.m_szMessage, "invalid data: cache is NULL(bs_write_bytes)");
    EXPECT_EQ(mp4_mux_bs_read_1byte(&bs), MUX_ERR_INVALID);
    world.fail = {call::malloc, 1};
    EXPECT_EQ(mp4_mux_open_bitstream(&bs, 16, bs.m_hFile), MUX_ERR_MEMORY);
    EXPECT_EQ(mp4_mux_open_bitstream(&bs, 16, bs.m_hFile), 0);
    const int64_t beyond = int64_t{INT32_MAX} + 1;
    EXPECT_EQ(mp4_mux_bs_write_fseek_reset(&bs, beyond), 0);
    EXPECT_EQ(bs.m_llFilePos, beyond);
    mux = make_context(false);
    EXPECT_EQ(mp4_mux_bs_fseek_reset(&bs, beyond), MUX_ERR_SEEK);
    EXPECT_EQ(mp4_mux_bs_write_fseek_reset(&bs, INT32_MAX), 0);
    EXPECT_EQ(mp4_mux_close_bitstream(&bs), 0);
}

TEST_F(Bitstream, BehavesLikeAnArrayOfBytes)
{
    const char *given = std::getenv("SEED");
    const unsigned seed = given != nullptr ? static_cast<unsigned>(std::atoi(given)) : 20;
    SCOPED_TRACE(testing::Message() << "SEED=" << seed);
    std::mt19937 random(seed);
    Bytes model;
    for (int step = 0; step < 20000; step++) {
        if (step % 100 == 0) {
            EXPECT_EQ(mp4_mux_close_bitstream_from_external_memory(&bs), 0);
            open(static_cast<int32_t>(8 + random() % 50));
            model.clear();
        }
        const size_t at = random() % (model.size() + 1);
        const int32_t count = 1 + static_cast<int32_t>(random() % (step % 10 == 0 ? 90 : 8));
        const size_t end = at + static_cast<size_t>(count);
        uint8_t block[90];
        std::generate_n(block, count, [&] { return static_cast<uint8_t>(random()); });
        ASSERT_EQ(mp4_mux_bs_fseek_reset(&bs, static_cast<int64_t>(at)), 0);
        ASSERT_EQ(mp4_mux_bs_write_bytes(&bs, block, count), count);
        ASSERT_EQ(mp4_mux_bs_write_fseek_reset(&bs, 0), 0);
        model.resize(std::max(model.size(), end));
        std::copy_n(block, count, model.data() + at);
    }
    EXPECT_EQ(world.files["f"].bytes, model);
}

} // namespace
