// Sizes of the MPEG-4 descriptors.
// source: ISO/IEC 14496-1, 7.2.2 and 8.3.3
#ifndef MP4MUX_DESCRIPTOR_H
#define MP4MUX_DESCRIPTOR_H

#include <cstdint>

inline constexpr uint32_t kDescriptorTagBytes = 1;
inline constexpr uint32_t kEsFieldBytes = 3;      // of the ES_Descriptor: ES_ID and flags
inline constexpr uint32_t kConfigFieldBytes = 13; // of the DecoderConfigDescriptor
inline constexpr uint32_t kSlDescriptorBytes = 3; // the whole SLConfigDescriptor

// Number of bytes of an expandable size: groups of 7 bits.
[[nodiscard]] constexpr uint32_t descriptor_size_bytes(uint32_t payload)
{
    uint32_t bytes = 1;
    while ((payload >>= 7) != 0) {
        bytes++;
    }
    return bytes;
}

// Bytes of a descriptor's tag and size.
[[nodiscard]] constexpr uint32_t descriptor_header_bytes(uint32_t payload)
{
    return kDescriptorTagBytes + descriptor_size_bytes(payload);
}

// Sizes of the nested descriptors of one elementary stream.
struct descriptor_sizes {
    uint32_t specific_info; // of the whole DecoderSpecificInfo, 0 when there is none
    uint32_t config;        // payload of the DecoderConfigDescriptor
    uint32_t stream;        // payload of the ES_Descriptor
};

// returns: the sizes with private_bytes of decoder specific info
[[nodiscard]] constexpr descriptor_sizes sizes_of_descriptors(uint32_t private_bytes)
{
    descriptor_sizes sizes = {};
    if (private_bytes != 0) {
        sizes.specific_info = descriptor_header_bytes(private_bytes) + private_bytes;
    }
    sizes.config = kConfigFieldBytes + sizes.specific_info;
    sizes.stream =
        kEsFieldBytes + descriptor_header_bytes(sizes.config) + sizes.config + kSlDescriptorBytes;
    return sizes;
}

// Bytes of the descriptors around private_bytes of decoder specific info, their fixed fields not
// counted.
[[nodiscard]] constexpr int64_t estimate_descriptors(int32_t private_bytes)
{
    const descriptor_sizes sizes = sizes_of_descriptors(static_cast<uint32_t>(private_bytes));
    return int64_t{descriptor_header_bytes(sizes.stream)} + descriptor_header_bytes(sizes.config) +
           sizes.specific_info;
}

static_assert(estimate_descriptors(0) == 4 && estimate_descriptors(2) == 8);

#endif // MP4MUX_DESCRIPTOR_H
