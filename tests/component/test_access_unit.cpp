// Every input over small alphabets, compared with a splitter that works byte by byte.
#include "component/access_unit.h"

#include <gtest/gtest.h>
#include <tuple>
#include <vector>

using Bytes = std::vector<uint8_t>;

static std::vector<nal_unit_t> plain_units(const Bytes &data)
{
    const uint32_t length = static_cast<uint32_t>(data.size());
    std::vector<nal_unit_t> units;
    for (uint32_t i = 0; i + 3 <= length; i++) {
        if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 1) {
            continue;
        }
        if (!units.empty()) {
            units.back().end = i;
        }
        units.push_back({i > 0 && data[i - 1] == 0 ? i - 1 : i, i + 3, length});
    }
    for (nal_unit_t &unit : units) {
        while (unit.end > unit.start && data[unit.end - 1] == 0) {
            unit.end--;
        }
    }
    return units;
}

static access_unit_t plain_description(const Bytes &data, const std::vector<nal_unit_t> &units)
{
    access_unit_t result = {};
    result.picture_offset = static_cast<uint32_t>(data.size());
    for (const nal_unit_t &unit : units) {
        const bool is_front = result.picture_unit_count == 0;
        const bool is_short = unit.start - unit.start_code == 3;
        const int type = unit.start == unit.end ? -1 : data[unit.start] % 32;
        const bool is_set = is_front && (type == 7 || type == 8);
        result.has_short_start_codes |= is_short;
        result.has_short_leading_codes |= is_short && is_front;
        result.has_empty_units |= type < 0;
        result.sps_count += is_set && type == 7 ? 1u : 0u;
        result.pps_count += is_set && type == 8 ? 1u : 0u;
        result.has_valid_sps |= is_set && type == 7 && unit.end - unit.start >= 4;
        if (type >= 0 && !is_set) {
            result.picture_offset = is_front ? unit.start_code : result.picture_offset;
            result.picture_unit_count++;
            result.has_slice |= type >= 1 && type <= 5;
            result.is_idr |= type == 5;
        }
    }
    return result;
}

static bool is_same(const access_unit_t &a, const access_unit_t &b)
{
    const auto fields = [](const access_unit_t &u) {
        return std::tuple(u.picture_offset, u.sps_count, u.pps_count, u.picture_unit_count,
                          u.has_slice, u.is_idr, u.has_valid_sps, u.has_short_start_codes,
                          u.has_short_leading_codes, u.has_empty_units);
    };
    return fields(a) == fields(b);
}

// All units, each after its length or after a start code of 4 bytes.
static Bytes plain_rewrite(const Bytes &data, const std::vector<nal_unit_t> &units, bool lengths)
{
    Bytes out;
    for (const nal_unit_t &unit : units) {
        if (unit.end > unit.start) {
            out.insert(out.end(), {0, 0, 0, 1});
            out.back() = lengths ? static_cast<uint8_t>(unit.end - unit.start) : uint8_t{1};
            out.insert(out.end(), &data[unit.start], &data[unit.end - 1] + 1);
        }
    }
    return out;
}

static bool is_handled(const Bytes &data)
{
    const uint32_t length = static_cast<uint32_t>(data.size());
    const std::vector<nal_unit_t> units = plain_units(data);
    const access_unit_t expected = plain_description(data, units);
    const uint32_t count = count_leading_sets(&expected) + expected.picture_unit_count;
    const bool is_access_unit = count > 0 && units[0].start_code == 0;
    access_unit_t result;
    if (describe_access_unit(data.data(), length, &result) != is_access_unit) {
        return false;
    }
    if (!is_access_unit) {
        return true;
    }
    const Bytes with_lengths = plain_rewrite(data, units, true);
    Bytes out(length + count);
    out.resize(prefix_lengths(data.data(), length, out.data()));
    Bytes copy(length + count);
    copy.resize(copy_units(data.data(), length, copy.data()));
    Bytes in_place = data;
    if (!expected.has_short_start_codes) {
        in_place.resize(prefix_lengths(in_place.data(), length, in_place.data()));
    }
    return is_same(result, expected) && out == with_lengths &&
           copy == plain_rewrite(data, units, false) &&
           (expected.has_short_start_codes || in_place == with_lengths);
}

// Checks the data with every sequence of up to `most` words of the alphabet after it.
static void expect_all_handled(const Bytes &data, const std::vector<Bytes> &alphabet, int most)
{
    ASSERT_TRUE(is_handled(data)) << testing::PrintToString(data);
    for (size_t i = 0; i < alphabet.size() && most > 0 && !testing::Test::HasFailure(); i++) {
        Bytes longer; // has no spare capacity, so that an overrun is noticed
        longer.reserve(data.size() + alphabet[i].size());
        longer = data;
        longer.insert(longer.end(), alphabet[i].begin(), alphabet[i].end());
        expect_all_handled(longer, alphabet, most - 1);
    }
}

TEST(AccessUnit, IsSplitAsByteByByteForEveryRowOfBytes)
{
    expect_all_handled({}, {{0}, {1}, {3}, {0x65}, {0x67}, {0x68}}, 7);
}

TEST(AccessUnit, IsSplitAsByteByByteForEveryRowOfStartCodesAndUnits)
{
    expect_all_handled(
        {}, {{0}, {0, 0, 1}, {0, 0, 0, 1}, {0x65}, {0x41}, {0x67, 3, 3}, {0x68}, {6}}, 6);
}
