#include "client/access_unit.h"

#include <gtest/gtest.h>

#include <random>

using bytes = std::vector<uint8_t>;

// Sets whose identifier is 0; slice headers that begin with first_mb_in_slice 0 and a P, I or B
// slice_type.
static const bytes SPS = {0x67, 0x42, 0xC0, 0x0D, 0xDB, 0x05};
static const bytes PPS = {0x68, 0xCA, 0x8C};
static const bytes IDR = {0x65, 0x88, 0x84, 0x21};
static const bytes P_SLICE = {0x41, 0x9A, 0x02};
static const bytes B_SLICE = {0x01, 0x9E, 0x02}; // slice_type 6
static const bytes SEI = {0x06, 0x05, 0x01, 0x80};
static const bytes DELIMITER = {0x09, 0xF0};

static bytes join(std::initializer_list<bytes> parts)
{
    bytes all;
    for (const bytes &part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

static bytes start4(const bytes &nal)
{
    return join({{0, 0, 0, 1}, nal});
}

static bytes start3(const bytes &nal)
{
    return join({{0, 0, 1}, nal});
}

static bytes length4(const bytes &nal)
{
    return join({{0, 0, 0, static_cast<uint8_t>(nal.size())}, nal});
}

static bytes avcc(uint8_t length_bytes)
{
    return join({{1, 0x42, 0xC0, 0x0D, static_cast<uint8_t>(0xFC | (length_bytes - 1)), 0xE1, 0, 6},
                 SPS,
                 {1, 0, 3},
                 PPS});
}

TEST(access_unit, drops_all_but_sets_and_slices_and_writes_long_start_codes)
{
    access_unit_converter converter;
    access_unit unit;
    const bytes packet = join({start4(DELIMITER),
                               start3(SPS),
                               start4(PPS),
                               start3(SEI),
                               start3(IDR),
                               {0, 0},
                               start3({0x0C, 0xFF, 0x80})});
    ASSERT_EQ(access_unit_convert(converter, packet, unit), unit_verdict::ready);
    EXPECT_EQ(unit.bytes, join({start4(SPS), start4(PPS), start4(IDR)}));
    EXPECT_TRUE(unit.idr);

    // The sets stand in front of every IDR picture once, whether the stream repeats them or not.
    ASSERT_EQ(access_unit_convert(converter, start4(P_SLICE), unit), unit_verdict::ready);
    EXPECT_EQ(unit.bytes, start4(P_SLICE));
    EXPECT_FALSE(unit.idr);
    EXPECT_FALSE(unit.bi_predicted);
    ASSERT_EQ(access_unit_convert(converter, start3(IDR), unit), unit_verdict::ready);
    EXPECT_EQ(unit.bytes, join({start4(SPS), start4(PPS), start4(IDR)}));
    const bytes doubled =
        join({start4(SPS), start4(SPS), start4(PPS), start4(PPS), start4(PPS), start4(IDR)});
    ASSERT_EQ(access_unit_convert(converter, doubled, unit), unit_verdict::ready);
    EXPECT_EQ(unit.bytes, join({start4(SPS), start4(PPS), start4(IDR)}));
    // Repeated in front of another picture they are left out.
    ASSERT_EQ(access_unit_convert(converter, join({start4(SPS), start4(P_SLICE)}), unit),
              unit_verdict::ready);
    EXPECT_EQ(unit.bytes, start4(P_SLICE));
}

TEST(access_unit, takes_lengths_of_every_size_with_the_containers_sets)
{
    for (const uint8_t length_bytes : {uint8_t{1}, uint8_t{2}, uint8_t{4}}) {
        access_unit_converter converter;
        access_unit unit;
        ASSERT_TRUE(access_unit_configure(converter, avcc(length_bytes)));
        ASSERT_EQ(converter.length_bytes, length_bytes);
        bytes packet;
        for (const bytes &nal : {SEI, IDR}) {
            packet.insert(packet.end(), length_bytes - 1u, 0);
            packet.push_back(static_cast<uint8_t>(nal.size()));
            packet.insert(packet.end(), nal.begin(), nal.end());
        }
        ASSERT_EQ(access_unit_convert(converter, packet, unit), unit_verdict::ready);
        EXPECT_EQ(unit.bytes, join({start4(SPS), start4(PPS), start4(IDR)}));
    }
}

TEST(access_unit, keeps_several_slices_and_several_picture_sets)
{
    access_unit_converter converter;
    access_unit unit;
    const bytes second_pps = {0x68, 0x4C, 0x8C};         // identifier 1
    const bytes second_slice = {0x65, 0x24, 0x44, 0x21}; // first_mb_in_slice 8
    ASSERT_TRUE(
        access_unit_configure(converter, join({start3(PPS), start4(second_pps), start3(SPS)})));
    ASSERT_EQ(access_unit_convert(converter, join({start4(IDR), start3(second_slice)}), unit),
              unit_verdict::ready);
    EXPECT_EQ(unit.bytes, join({start4(SPS), start4(PPS), start4(second_pps), start4(IDR),
                                start4(second_slice)}));
    // Without its first slice a picture is not whole.
    EXPECT_EQ(access_unit_convert(converter, start4(second_slice), unit), unit_verdict::malformed);
}

TEST(access_unit, tells_what_cannot_be_recorded)
{
    access_unit_converter converter;
    access_unit unit;
    EXPECT_EQ(access_unit_convert(converter, start4(IDR), unit), unit_verdict::no_sets);
    EXPECT_EQ(access_unit_convert(converter, join({start4(SPS), start4(IDR)}), unit),
              unit_verdict::no_sets);
    EXPECT_EQ(access_unit_convert(converter, join({start4(PPS), start4(DELIMITER)}), unit),
              unit_verdict::empty);
    ASSERT_EQ(access_unit_convert(converter, start4(IDR), unit), unit_verdict::ready);
    ASSERT_EQ(access_unit_convert(converter, start4(B_SLICE), unit), unit_verdict::ready);
    EXPECT_TRUE(unit.bi_predicted);
    EXPECT_EQ(access_unit_convert(converter, start4({0x62, 0x88, 0x84}), unit),
              unit_verdict::partitioned);
    bytes other_pps = PPS;
    other_pps.back() ^= 0x04;
    EXPECT_EQ(access_unit_convert(converter, join({start4(other_pps), start4(IDR)}), unit),
              unit_verdict::sets_changed);
}

TEST(access_unit, rejects_damaged_units)
{
    access_unit unit;
    for (const bytes &packet : std::initializer_list<bytes>{
             {0x65, 0x88, 0x84},         // no start code
             start4({0xE5, 0x88, 0x84}), // forbidden_zero_bit
             start4({0x65}),             // no slice header
             start4({0x65, 0x00, 0x00}), // a slice header that does not end
             start4({0x67, 0x42, 0xC0}), // a sequence set that ends before its identifier
             start4({0x68})}) {
        access_unit_converter converter;
        EXPECT_EQ(access_unit_convert(converter, packet, unit), unit_verdict::malformed);
    }
    for (const bytes &packet : std::initializer_list<bytes>{
             {0, 0, 0, 5, 0x65, 0x88, 0x84, 0x21},          // ends before its length says
             {0, 0, 0},                                     // ends within a length
             {0xFF, 0xFF, 0xFF, 0xFF, 0x65, 0x88},          // a length near 2^32
             length4({0x65, 0x88, 0, 0, 1, 0x41, 0x9A})}) { // a start code inside
        access_unit_converter converter;
        ASSERT_TRUE(access_unit_configure(converter, avcc(4)));
        EXPECT_EQ(access_unit_convert(converter, packet, unit), unit_verdict::malformed);
    }
}

TEST(access_unit, rejects_every_shortened_configuration)
{
    const bytes whole = avcc(4);
    for (size_t size = 1; size < whole.size(); size++) {
        access_unit_converter converter;
        EXPECT_FALSE(access_unit_configure(converter, {whole.data(), size})) << size;
    }
    access_unit_converter converter;
    EXPECT_TRUE(access_unit_configure(converter, {}));
    EXPECT_FALSE(access_unit_configure(converter, bytes{2, 0, 0, 1, 0x67}));
}

TEST(access_unit, survives_noise)
{
    const char *const given = std::getenv("SEED");
    const unsigned seed = given != nullptr ? static_cast<unsigned>(std::atoi(given)) : 1u;
    std::mt19937 random(seed);
    SCOPED_TRACE("SEED=" + std::to_string(seed));
    // Few values, so that start codes, lengths and headers occur.
    const bytes alphabet = {0, 0, 0, 1, 3, 4, 0x65, 0x67, 0x68, 0x41, 0x80, 0xFF};
    for (int round = 0; round < 20000; round++) {
        access_unit_converter converter;
        access_unit unit;
        bytes packet(random() % 40);
        for (uint8_t &byte : packet) {
            byte = alphabet[random() % alphabet.size()];
        }
        if (access_unit_configure(converter, round % 2 == 0 ? packet : avcc(4)) &&
            access_unit_convert(converter, packet, unit) == unit_verdict::ready) {
            EXPECT_GE(unit.bytes.size(), 6u);
            EXPECT_EQ(bytes(unit.bytes.begin(), unit.bytes.begin() + 4), (bytes{0, 0, 0, 1}));
        }
    }
}
