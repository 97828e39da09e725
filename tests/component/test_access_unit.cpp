#include "component/access_unit.h"

#include "tests/support/programme.h"

#include <gtest/gtest.h>
#include <random>

static access_unit_t describe(const Bytes &data)
{
    access_unit_t access_unit = {};
    EXPECT_TRUE(
        describe_access_unit(data.data(), static_cast<uint32_t>(data.size()), &access_unit));
    return access_unit;
}

static Bytes prefix_in_place(Bytes data)
{
    data.resize(prefix_lengths(data.data(), static_cast<uint32_t>(data.size()), data.data()));
    return data;
}

TEST(AccessUnit, TellsParameterSetsFromThePictureBehindThem)
{
    const access_unit_t unit = describe(
        {0, 0, 0, 1, 0x67, 66, 192, 13, 9, 0, 0, 0, 1, 0x68, 1, 0, 0, 0, 1, 0x65, 7, 7, 7});
    EXPECT_EQ(unit.uiSpsCount, 1u);
    EXPECT_EQ(unit.uiPpsCount, 1u);
    EXPECT_EQ(unit.uiPictureOffset, 15u);
    EXPECT_EQ(unit.uiUnitCount, 1u);
    EXPECT_TRUE(unit.is_idr);
    EXPECT_TRUE(unit.has_sound_sps);
    EXPECT_FALSE(unit.has_short_start_codes);
}

TEST(AccessUnit, CountsSlicesAndFindsAnIdrAmongThem)
{
    const access_unit_t unit =
        describe({0, 0, 0, 1, 0x06, 5, 0, 0, 1, 0x41, 3, 0, 0, 0, 1, 0x65, 4, 0, 0, 1});
    EXPECT_EQ(unit.uiPictureOffset, 0u);
    EXPECT_EQ(unit.uiUnitCount, 3u);
    EXPECT_TRUE(unit.is_idr);
    EXPECT_TRUE(unit.has_short_start_codes);
    EXPECT_TRUE(unit.has_empty_units);
}

TEST(AccessUnit, RefusesWhatHasNoUnitBehindAStartCodeAtItsStart)
{
    for (const Bytes &data :
         {Bytes{}, Bytes{0}, Bytes{0, 0, 0, 1}, Bytes{0, 0, 1}, Bytes{1, 0, 0, 1, 0x65},
          Bytes{9, 0, 0, 0, 1, 0x65}, Bytes{0x65, 1, 2, 3, 4, 5}, Bytes(100, 0)}) {
        access_unit_t unit = {};
        EXPECT_FALSE(describe_access_unit(data.data(), static_cast<uint32_t>(data.size()), &unit));
    }
}

TEST(AccessUnit, GivesEveryUnitItsLengthInPlaceOfTheStartCode)
{
    EXPECT_EQ(prefix_in_place({0, 0, 0, 1, 0x41, 2, 3, 0, 0, 0, 1, 0x41, 4}),
              (Bytes{0, 0, 0, 3, 0x41, 2, 3, 0, 0, 0, 2, 0x41, 4}));
    // Zeros that trail a unit are no part of it, and an empty unit is none.
    EXPECT_EQ(prefix_in_place({0, 0, 0, 1, 0x41, 2, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0x41, 4, 0}),
              (Bytes{0, 0, 0, 2, 0x41, 2, 0, 0, 0, 2, 0x41, 4}));
}

TEST(AccessUnit, SurvivesRandomBytesAndKeepsEveryUnit)
{
    std::mt19937 random(1);
    for (int round = 0; round < 20000; round++) {
        Bytes data(random() % 60);
        for (uint8_t &byte : data) {
            byte = static_cast<uint8_t>(random() % 4 == 0 ? random() % 256 : random() % 2);
        }
        access_unit_t unit = {};
        const uint32_t length = static_cast<uint32_t>(data.size());
        if (!describe_access_unit(data.data(), length, &unit)) {
            continue;
        }
        Bytes expected;
        uint32_t count = 0;
        for (const Bytes &nal : split_nal_units(data)) {
            if (!nal.empty()) {
                const uint8_t size = static_cast<uint8_t>(nal.size());
                expected.insert(expected.end(), {0, 0, 0, size});
                expected.insert(expected.end(), nal.begin(), nal.end());
                count++;
            }
        }
        ASSERT_EQ(unit.uiFrontUnitCount + unit.uiUnitCount, count);
        Bytes out(length + count);
        out.resize(prefix_lengths(data.data(), length, out.data()));
        ASSERT_EQ(out, expected) << "round " << round;
        if (!unit.has_short_start_codes) {
            ASSERT_EQ(prefix_in_place(data), expected) << "round " << round;
        }
    }
}
