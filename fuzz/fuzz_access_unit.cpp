// Any bytes as an access unit for the component: the frame that it makes of them is a chain of
// whole units, whichever way it is made. Any packets of a video stream for the client's converter:
// what it reports as ready has the form that the component requires.
//
// Input: the access unit; or a decoder configuration and up to 16 packets, each after its length
// (1 byte).
#include "client/input/access_unit_converter.h"
#include "component/access_unit.h"
#include "fuzz/input.h"

// Counts the units, each of which follows its length.
static uint32_t count_units(const Bytes &frame)
{
    uint32_t count = 0;
    for (fuzz_input input = {frame}; !input.left.empty(); count++) {
        const size_t length = static_cast<size_t>(input.number(kUnitLengthBytes));
        require(length > 0 && input.take(length).size() == length,
                "a length leads to the next one");
    }
    return count;
}

static void check_component(Bytes data)
{
    const uint32_t length = static_cast<uint32_t>(data.size());
    access_unit_t unit;
    if (!describe_access_unit(data.data(), length, &unit)) {
        return;
    }
    const uint32_t units = count_leading_sets(&unit) + unit.picture_unit_count;
    require((unit.picture_offset < length) == (unit.picture_unit_count > 0) &&
                (unit.has_slice || !unit.is_idr),
            "the description agrees with itself");
    Bytes frame(length + units);
    frame.resize(prefix_lengths(data.data(), length, frame.data()));
    require(count_units(frame) == units, "every unit has its length");
    Bytes copy(length + units);
    copy.resize(copy_units(data.data(), length, copy.data()));
    access_unit_t described;
    require(describe_access_unit(copy.data(), static_cast<uint32_t>(copy.size()), &described) &&
                !described.has_short_start_codes && !described.has_empty_units &&
                described.picture_unit_count == unit.picture_unit_count &&
                described.sps_count == unit.sps_count && described.is_idr == unit.is_idr,
            "a copy is the same access unit");
    copy.resize(prefix_lengths(copy.data(), static_cast<uint32_t>(copy.size()), copy.data()));
    require(copy == frame, "a copy gives the same frame, in place");
    if (!unit.has_short_start_codes) {
        data.resize(prefix_lengths(data.data(), length, data.data()));
        require(data == frame, "and so do start codes of 4 bytes");
    }
}

static void check_client(fuzz_input input)
{
    static constexpr uint8_t kStartCode[] = {0, 0, 0, 1};
    access_unit_converter converter;
    if (!access_unit_configure(converter, input.bytes(input.u8()))) {
        return;
    }
    for (int i = 0; i < 16 && !input.left.empty(); i++) {
        access_unit unit;
        if (access_unit_convert(converter, input.bytes(input.u8()), unit) == unit_verdict::ready) {
            require(unit.bytes.size() > 4 &&
                        std::equal(kStartCode, kStartCode + 4, unit.bytes.begin()),
                    "an access unit begins with a start code");
        }
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    check_component({data, data + size});
    check_client({{data, size}});
    return 0;
}
