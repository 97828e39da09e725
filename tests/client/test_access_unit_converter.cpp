#include "client/input/access_unit_converter.h"

#include <gtest/gtest.h>

using bytes = std::vector<uint8_t>;
using enum unit_verdict;

// The sets have identifier 0. The slices have first_mb_in_slice 0 and a P, I or B slice_type.
static const bytes kSps = {0x67, 0x42, 0xC0, 0x0D, 0xDB, 0x05};
static const bytes kPps = {0x68, 0xCA, 0x8C};
static const bytes kIdr = {0x65, 0x88, 0x84, 0x21};
static const bytes kPSlice = {0x41, 0x9A, 0x02};
static const bytes kBSlice = {0x01, 0x9E, 0x02}; // slice_type 6
static const bytes kSei = {0x06, 0x05, 0x01, 0x80};
static const bytes kDelimiter = {0x09, 0xF0};
static const bytes kSecondPps = {0x68, 0x4C, 0x8C};         // identifier 1
static const bytes kSecondSlice = {0x65, 0x24, 0x44, 0x21}; // first_mb_in_slice 8

static bytes operator+(bytes left, const bytes &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

static bytes units(std::initializer_list<bytes> nals, const bytes &start_code = {0, 0, 0, 1})
{
    bytes all;
    for (const bytes &nal : nals) {
        all = all + start_code + nal;
    }
    return all;
}

static bytes avcc(uint8_t length_bytes)
{
    const uint8_t coded = static_cast<uint8_t>(0xFC | (length_bytes - 1));
    return bytes{1, 0x42, 0xC0, 0x0D, coded, 0xE1, 0, 6} + kSps + bytes{1, 0, 3} + kPps;
}

TEST(AccessUnitConverter, MakesAFilesConfigurationAndSamples)
{
    access_unit_converter converter;
    access_unit unit;
    ASSERT_EQ(access_unit_convert(converter, units({kSps, kPps, kIdr}), unit), ready);
    EXPECT_EQ(access_unit_configuration(converter), units({kSps, kPps}));
    ASSERT_EQ(access_unit_convert(converter = {},
                                  units({kSps, kPps, kSecondPps, kIdr, kSecondSlice}), unit),
              ready);
    bytes record = avcc(4) + bytes{0, 3} + kSecondPps; // after the first picture set
    record[record.size() - 2 * 5 - 1] = 2;
    EXPECT_EQ(access_unit_configuration(converter), record);
    EXPECT_EQ(access_unit_with_lengths(unit),
              (bytes{0, 0, 0, 4} + kIdr + bytes{0, 0, 0, 4} + kSecondSlice));
}

// An access unit of a stream, and the expected result.
struct step {
    bytes packet;
    unit_verdict verdict;
    bytes expected = {};
};

static void expect_stream(const bytes &configuration, std::initializer_list<step> steps)
{
    access_unit_converter converter;
    access_unit unit;
    ASSERT_TRUE(access_unit_configure(converter, configuration));
    for (const auto &[packet, verdict, expected] : steps) {
        SCOPED_TRACE(testing::PrintToString(packet));
        ASSERT_EQ(access_unit_convert(converter, packet, unit), verdict);
        if (verdict == ready) {
            EXPECT_EQ(unit.bytes, expected);
            EXPECT_EQ(unit.idr, expected[4] == kSps[0]);
            EXPECT_EQ(unit.bi_predicted, expected == units({kBSlice}));
        }
    }
}

TEST(AccessUnitConverter, ConvertsStartCodesAndReportsUnsupportedStreams)
{
    const bytes whole = units({kSps, kPps, kIdr});
    const bytes both = units({kSps, kPps, kSecondPps, kIdr, kSecondSlice});
    const bytes mixed = units({kDelimiter}) + units({kSps}, {0, 0, 1}) + units({kPps}) +
                        units({kSei, kIdr}, {0, 0, 1}) + bytes{0, 0} + units({{0x0C, 0xFF, 0x80}});
    // The sets are before every IDR picture once, and before no other picture.
    expect_stream({}, {{mixed, ready, whole},
                       {units({kPSlice}), ready, units({kPSlice})},
                       {units({kBSlice}, {0, 0, 1}), ready, units({kBSlice})},
                       {units({kIdr}, {0, 0, 1}), ready, whole},
                       {units({kSps, kSps, kPps, kPps, kPps, kIdr}), ready, whole},
                       {units({kSps, kPSlice}), ready, units({kPSlice})},
                       {units({{0x62, 0x88, 0x84}}), partitioned}});
    expect_stream({}, {{units({kIdr}), no_sets},
                       {units({kSps, kIdr}), no_sets},
                       {units({kPps, kDelimiter}), empty},
                       {units({kIdr}), ready, whole}});
    // A picture without its first slice is damaged.
    expect_stream(units({kPps, kSecondPps, kSps}, {0, 0, 1}),
                  {{units({kIdr, kSecondSlice}), ready, both}, {units({kSecondSlice}), malformed}});
}

TEST(AccessUnitConverter, KeepsTheFirstSetsAndReportsOthers)
{
    const bytes whole = units({kSps, kPps, kIdr}), other = {0x68, 0xCA, 0x88}, none;
    const struct {
        bytes packet, others;
        unsigned damaged;
    } steps[] = {{whole, none, 0},
                 {units({other, kIdr}), units({kSps, other}), 0},
                 {units({kIdr}), units({kSps, other}), 0}, // not repeated, but still in force
                 {whole, none, 0},
                 {units({kSecondPps, kIdr}), units({kSps, kPps, kSecondPps}), 0},
                 {units({kIdr}), none, 0},                     // not repeated, so it was damage
                 {units({{0x67, 0x42, 0xC0}, kIdr}), none, 1}, // without its identifier
                 {units({bytes{0x68}, kIdr}), none, 2}};
    access_unit_converter converter;
    access_unit unit;
    for (const auto &[packet, others, damaged] : steps) {
        ASSERT_EQ(access_unit_convert(converter, packet, unit), ready);
        EXPECT_EQ(unit.bytes, whole);
        EXPECT_EQ(unit.other_sets, others);
        EXPECT_EQ(converter.damaged_sets, damaged);
    }
}

TEST(AccessUnitConverter, TakesLengthsOfEverySizeWithTheContainersSets)
{
    for (const uint8_t size : {uint8_t{1}, uint8_t{2}, uint8_t{4}}) {
        bytes length(size);
        length.back() = 4; // of both units
        expect_stream(avcc(size),
                      {{units({kSei, kIdr}, length), ready, units({kSps, kPps, kIdr})}});
    }
}

TEST(AccessUnitConverter, RejectsDamage)
{
    const struct {
        bytes configuration, packet;
    } cases[] = {{{}, {0x65, 0x88, 0x84}},          // no start code
                 {{}, units({{0xE5, 0x88, 0x84}})}, // forbidden_zero_bit
                 {{}, units({bytes{0x65}})},        // no slice header
                 {{}, units({{0x65, 0x00, 0x00}})}, // a slice header that does not end
                 {avcc(4), {0, 0, 0, 5, 0x65, 0x88, 0x84, 0x21}}, // ends before its length says
                 {avcc(4), {0, 0, 0}},                            // ends within a length
                 {avcc(4), {0xFF, 0xFF, 0xFF, 0xFF, 0x65, 0x88}}, // a length near 2^32
                 {avcc(4), {0, 0, 0, 7, 0x65, 0x88, 0, 0, 1, 0x41, 0x9A}}}; // a start code inside
    for (const auto &[configuration, packet] : cases) {
        expect_stream(configuration, {{packet, malformed}});
    }
    access_unit_converter converter;
    EXPECT_FALSE(access_unit_configure(converter, bytes{2, 0, 0, 1, 0x67}));
    const bytes whole = avcc(4);
    for (size_t size = 1; size < whole.size(); size++) {
        EXPECT_FALSE(access_unit_configure(converter = {}, {whole.data(), size})) << size;
    }
}
