#include "mp4mux/avc_record.h"

#include <cassert>
#include <cstdint>

static constexpr size_t kFixedBytes = 11; // of the record without the two units

size_t avc_record_bytes(const parameter_sets &sets)
{
    return kFixedBytes + sets.sps.size() + sets.pps.size();
}

static void write_unit(mp4_mux_bs_t *bs, nal_unit unit)
{
    mp4_mux_bs_write_be16(bs, static_cast<uint32_t>(unit.size())); // unsigned int(16) length;
    (void)mp4_mux_bs_write_bytes(bs, unit.data(), static_cast<int32_t>(unit.size()));
}

void write_avc_record(mp4_mux_bs_t *bs, const parameter_sets &sets)
{
    assert(sets.sps.size() >= kMinSpsBytes && sets.sps.size() <= UINT16_MAX);
    assert(sets.pps.size() <= UINT16_MAX);
    mp4_mux_bs_write_be8(bs, 1);           // unsigned int(8) configurationVersion = 1;
    mp4_mux_bs_write_be8(bs, sets.sps[1]); // unsigned int(8) AVCProfileIndication;
    mp4_mux_bs_write_be8(bs, sets.sps[2]); // unsigned int(8) profile_compatibility;
    mp4_mux_bs_write_be8(bs, sets.sps[3]); // unsigned int(8) AVCLevelIndication;
    mp4_mux_bs_write_be8(bs, 0xFF);        // bit(6) reserved; unsigned int(2) lengthSizeMinusOne;
    mp4_mux_bs_write_be8(bs, 0xE1); // bit(3) reserved; unsigned int(5) numOfSequenceParameterSets;
    write_unit(bs, sets.sps);
    mp4_mux_bs_write_be8(bs, 1); // unsigned int(8) numOfPictureParameterSets;
    write_unit(bs, sets.pps);
}
