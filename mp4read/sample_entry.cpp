#include "mp4read/sample_entry.h"

namespace mp4_reader {

// The profile_idc values whose records end after the picture parameter sets.
static constexpr uint32_t kProfileBaseline = 66, kProfileMain = 77, kProfileExtended = 88;

// Tags of descriptors, ISO/IEC 14496-1, table 1.
static constexpr uint32_t kEsDescriptorTag = 3, kDecoderConfigTag = 4, kDecoderSpecificInfoTag = 5,
                          kSlConfigTag = 6;
static constexpr uint32_t kSlPredefinedMp4 = 2;

static bool has_extension(uint32_t profile)
{
    return profile != kProfileBaseline && profile != kProfileMain && profile != kProfileExtended;
}

// AVCDecoderConfigurationRecord, ISO/IEC 14496-15, 5.2.4.1
static void read_avcc(reading &state, const box &avcc, avc_configuration &result)
{
    cursor in = {avcc.payload};
    result.record = copy(in.data);
    if (in.data.empty()) {
        return;
    }
    check(state, in.u32(1) == 1, "configurationVersion is not 1");
    const uint32_t profile = in.u32(1); // AVCProfileIndication
    in.take(2);                         // profile_compatibility, AVCLevelIndication
    check(state, (in.u32(1) & 3) == 3, "the lengths of NAL units do not have 4 bytes");
    for (uint32_t count = in.u32(1) & 0x1F; count > 0; count--) {
        result.sps.push_back(copy(in.take(in.number(2))));
    }
    for (uint32_t count = in.u32(1); count > 0; count--) {
        result.pps.push_back(copy(in.take(in.number(2))));
    }
    if (has_extension(profile) && !in.data.empty()) {
        in.take(3); // chroma_format, bit_depth_luma_minus8, bit_depth_chroma_minus8
        for (uint32_t count = in.u32(1); count > 0; count--) { // sequence set extensions
            in.take(in.number(2));
        }
    }
    check(state, in.is_used_up(), "avcC is too short or too long");
}

// Reads a descriptor's tag and size and advances the outer cursor to the next one.
// returns: a cursor on the payload
static cursor read_descriptor(reading &state, cursor &in, uint32_t tag)
{
    check(state, in.u32(1) == tag, "a descriptor's tag is not " + std::to_string(tag));
    uint64_t size = 0;
    uint32_t group = 0x80;
    while ((group & 0x80) != 0 && !in.overrun) {
        group = in.u32(1);
        size = size << 7 | (group & 0x7F);
    }
    const bytes payload = in.take(size);
    check(state, !in.overrun, "a descriptor extends beyond its container");
    return {payload};
}

// ESDBox, ISO/IEC 14496-14, 5.6
static void read_esds(reading &state, const box &esds, stream_descriptors &result)
{
    cursor in = {esds.payload};
    in.u32(); // version, flags
    cursor es = read_descriptor(state, in, kEsDescriptorTag);
    es.take(3); // ES_ID, flags
    cursor config = read_descriptor(state, es, kDecoderConfigTag);
    result.object_type = config.u32(1);
    result.stream_type = config.u32(1) >> 2;
    config.take(11); // bufferSizeDB, maxBitrate, avgBitrate
    if (!config.data.empty()) {
        result.specific_info = copy(read_descriptor(state, config, kDecoderSpecificInfoTag).data);
    }
    check(state,
          read_descriptor(state, es, kSlConfigTag).u32(1) == kSlPredefinedMp4 && in.is_used_up() &&
              es.is_used_up() && config.is_used_up(),
          "esds is inconsistent");
}

void read_sample_entry(reading &state, const box &stsd, track &result)
{
    cursor in = {stsd.payload};
    in.u32(); // version, flags
    check(state, in.u32() == 1 && in.u32() == in.data.size() + 4,
          "stsd does not hold exactly one entry");
    result.coding = in.text();
    in.take(8); // reserved, data_reference_index
    if (result.handler == "vide") {
        in.take(16);
        result.width = in.u32(2);
        result.height = in.u32(2);
        in.take(50);
    } else if (result.handler == "soun") {
        in.take(8);
        result.channels = in.u32(2);
        in.take(6);
        result.sample_rate = in.u32() >> 16; // 16.16
    } else {
        return;
    }
    check(state, !in.overrun, "the sample entry is too short");
    for (const box &child : read_boxes(state, in.data, 1)) {
        if (child.type == "avcC") {
            read_avcc(state, child, result.avc);
        } else if (child.type == "esds") {
            read_esds(state, child, result.esds);
        }
    }
}

} // namespace mp4_reader
