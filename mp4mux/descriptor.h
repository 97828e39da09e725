// Sizes of the MPEG-4 descriptors (ISO/IEC 14496-1, 7.2.2 and 8.3.3).
#ifndef MP4MUX_DESCRIPTOR_H
#define MP4MUX_DESCRIPTOR_H

#include <cstdint>

// Number of bytes of an expandable size: groups of 7 bits.
[[nodiscard]] constexpr uint32_t descriptor_size_bytes(uint32_t payload)
{
    uint32_t bytes = 1;
    while ((payload >>= 7) != 0) {
        bytes++;
    }
    return bytes;
}

// Payload sizes of the nested descriptors of one elementary stream.
struct descriptor_sizes {
    uint32_t specific_info; // of the whole DecoderSpecificInfo, 0 when there is none
    uint32_t config;        // payload of the DecoderConfigDescriptor
    uint32_t stream;        // payload of the ES_Descriptor
};

[[nodiscard]] constexpr descriptor_sizes sizes_of_descriptors(uint32_t private_bytes)
{
    descriptor_sizes sizes = {};
    if (private_bytes != 0) {
        sizes.specific_info = 1 + descriptor_size_bytes(private_bytes) + private_bytes;
    }
    sizes.config = 13 + sizes.specific_info;
    sizes.stream = 20 + sizes.specific_info + descriptor_size_bytes(sizes.config);
    return sizes;
}

// Estimate in bytes of the descriptors around private_bytes of decoder specific info.
[[nodiscard]] constexpr int64_t estimate_descriptors(int32_t private_bytes)
{
    if (private_bytes == 0) {
        return 4;
    }
    const descriptor_sizes sizes = sizes_of_descriptors(static_cast<uint32_t>(private_bytes));
    return int64_t{1} + descriptor_size_bytes(sizes.stream) + 1 +
           descriptor_size_bytes(sizes.config) + sizes.specific_info;
}

#endif // MP4MUX_DESCRIPTOR_H
