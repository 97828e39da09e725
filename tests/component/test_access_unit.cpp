#include "component/access_unit.h"

#include "tests/support/programme.h"

#include <gtest/gtest.h>
#include <random>

TEST(AccessUnit, RefusesWhatHasNoUnitBehindAStartCodeAtItsStart)
{
    for (const Bytes &data :
         {Bytes{}, Bytes{0}, Bytes{0, 0, 0, 1}, Bytes{0, 0, 1}, Bytes{1, 0, 0, 1, 0x65},
          Bytes{9, 0, 0, 0, 1, 0x65}, Bytes{0x65, 1, 2, 3, 4, 5}, Bytes(100, 0)}) {
        access_unit_t unit = {};
        EXPECT_FALSE(describe_access_unit(data.data(), static_cast<uint32_t>(data.size()), &unit));
    }
}

// Against the tests' own splitter, on bytes that are mostly start codes and unit headers.
TEST(AccessUnit, FindsAndPrefixesEveryUnitOfRandomBytes)
{
    static constexpr uint8_t ALPHABET[] = {0, 0, 0, 0, 1, 1, 0x65, 0x67, 0x68, 0x41};
    std::mt19937 random(1);
    for (int round = 0; round < 50000; round++) {
        Bytes data(random() % 60);
        for (uint8_t &byte : data) {
            byte = ALPHABET[random() % sizeof(ALPHABET)];
        }
        access_unit_t unit = {};
        const uint32_t length = static_cast<uint32_t>(data.size());
        if (!describe_access_unit(data.data(), length, &unit)) {
            continue;
        }
        access_unit_t expected = {};
        Bytes prefixed;
        for (const Bytes &nal : split_nal_units(data)) {
            if (nal.empty()) {
                continue;
            }
            prefixed.insert(prefixed.end(), {0, 0, 0, static_cast<uint8_t>(nal.size())});
            prefixed.insert(prefixed.end(), nal.begin(), nal.end());
            const int type = nal[0] & 0x1F;
            if (expected.uiUnitCount == 0 && (type == NAL_TYPE_SPS || type == NAL_TYPE_PPS)) {
                expected.uiFrontUnitCount++;
                expected.uiSpsCount += type == NAL_TYPE_SPS ? 1u : 0u;
                expected.has_sound_sps |= type == NAL_TYPE_SPS && nal.size() >= 4;
            } else {
                expected.uiUnitCount++;
                expected.is_idr |= type == NAL_TYPE_IDR;
            }
        }
        ASSERT_EQ(unit.uiFrontUnitCount, expected.uiFrontUnitCount) << "round " << round;
        ASSERT_EQ(unit.uiSpsCount, expected.uiSpsCount) << "round " << round;
        ASSERT_EQ(unit.uiUnitCount, expected.uiUnitCount) << "round " << round;
        ASSERT_EQ(unit.is_idr, expected.is_idr) << "round " << round;
        ASSERT_EQ(unit.has_sound_sps, expected.has_sound_sps) << "round " << round;
        Bytes out(length + unit.uiFrontUnitCount + unit.uiUnitCount);
        out.resize(prefix_lengths(data.data(), length, out.data()));
        ASSERT_EQ(out, prefixed) << "round " << round;
        if (!unit.has_short_start_codes) { // also in place
            data.resize(prefix_lengths(data.data(), length, data.data()));
            ASSERT_EQ(data, prefixed) << "round " << round;
        }
    }
}
