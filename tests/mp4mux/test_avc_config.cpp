// The AVC configuration record against a splitter that reads byte by byte.
#include "mp4mux/moov/avc_config.h"
#include "tests/support/mux_recording.h"

#include <algorithm>
#include <span>

using namespace mux_test;

namespace {

using view = std::span<const uint8_t>;

bool is_start_code(view data, size_t at)
{
    return at + 3 <= data.size() && data[at] == 0 && data[at + 1] == 0 && data[at + 2] == 1;
}

// The units between the start codes; a zero before a start code is a part of it.
std::vector<view> split(view data)
{
    std::vector<view> units;
    for (size_t at = 0; at < data.size(); at++) {
        if (is_start_code(data, at)) {
            size_t end = at + 3;
            while (end < data.size() && !is_start_code(data, end)) {
                end++;
            }
            const bool has_zero = end < data.size() && end > at + 3 && data[end - 1] == 0;
            units.push_back(data.subspan(at + 3, end - (has_zero ? 1 : 0) - (at + 3)));
        }
    }
    return units;
}

Bytes counted(view unit)
{
    return number(unit.size(), 2) + Bytes(unit.begin(), unit.end());
}

Bytes expected_record(view data)
{
    if (data.size() < 7) {
        return {};
    }
    if (!is_start_code(data, 0) && !(data[0] == 0 && is_start_code(data, 1))) {
        return {data.begin(), data.end()};
    }
    view sps, pps;
    size_t collected = 0;
    for (const view unit : split(data)) {
        if (unit.empty() || collected + 4 + unit.size() > 1024 || (!sps.empty() && !pps.empty())) {
            continue;
        }
        collected += 4 + unit.size();
        sps = (unit[0] & 31) == 7 && unit.size() >= 4 ? unit : sps;
        pps = (unit[0] & 31) == 8 ? unit : pps;
    }
    return sps.empty() ? Bytes{}
                       : Bytes{1, sps[1], sps[2], sps[3], 0xFF, 0xE1} + counted(sps) + Bytes{1} +
                             counted(pps);
}

class AvcConfig : public MuxTest {
  protected:
    mp4_mux_t mux = make_context(true);
    Bytes cache = Bytes(1200);

    void check(view data)
    {
        mp4_mux_open_bitstream_from_external_memory(&mux.m_Bs, cache.data(), 1200, nullptr);
        mux.m_pBs = &mux.m_Bs;
        mux.m_Bs.m_pstMux = &mux;
        mux.m_Bs.m_pstError = &mux.m_stLastError;
        ASSERT_EQ(isom_write_avcc(&mux, data.data(), static_cast<int32_t>(data.size())), 0);
        const Bytes expected = expected_record(data);
        if (mux.m_Bs.m_uiFill != expected.size() ||
            !std::equal(expected.begin(), expected.end(), cache.begin())) {
            FAIL() << hex({data.begin(), data.end()}) << " should give " << hex(expected);
        }
    }
};

// All sequences of up to 8 letters after a start code and of up to 7 without, at every alignment.
// The memory ends with the sequence.
TEST_F(AvcConfig, SplitsEverySequenceOfBytes)
{
    static constexpr uint8_t kLetters[] = {0x00, 0x01, 0x67, 0x68};
    const Bytes fronts[] = {{}, {0, 0, 1}, {0, 0, 0, 1}};
    Bytes memory[] = {Bytes(16), Bytes(17), Bytes(18), Bytes(19)};
    for (uint32_t count = 0; count <= 8; count++) {
        for (uint32_t row = 0; row < 1u << 2 * count; row++) {
            for (size_t n = count <= 7 ? 0 : 4; n < 12; n++) {
                const Bytes &front = fronts[n / 4];
                Bytes &place = memory[n % 4];
                uint8_t *to = place.data() + place.size() - front.size() - count;
                to = std::copy(front.begin(), front.end(), to);
                for (uint32_t i = 0; i < count; i++) {
                    *to++ = kLetters[row >> 2 * i & 3];
                }
                check(view(place).last(front.size() + count));
            }
            if (HasFatalFailure()) {
                return;
            }
        }
    }
}

// Units that end before, at and after the limit of 1024 bytes.
TEST_F(AvcConfig, LeavesOutUnitsBeyondTheFirst1024Bytes)
{
    for (const Bytes &start : {bytes("06"), bytes("67"), bytes("68")}) {
        for (size_t size = 990; size <= 1030; size++) {
            const Bytes unit = start + Bytes(size - 1, 0x55);
            const Bytes data = join_nal_units({unit, kSps, bytes("06 05"), kPps, bytes("6501")});
            check(data);
        }
    }
}

} // namespace
