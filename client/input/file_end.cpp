#include "client/input/file_end.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <optional>
#include <span>
#include <unistd.h>

// RIFF: chunks of a name, a size (little-endian) and data; the audio is in the chunk "data".
static bool is_cut_wave(const byte_reader &read_at, int64_t size)
{
    static constexpr int kChunksMax = 1000;
    static constexpr uint32_t kSizeUnknown = 0x7FFF0000; // or more, from writers that cannot seek
    int64_t position = 12;                               // after "RIFF", its size and "WAVE"
    std::array<uint8_t, 8> head = {};
    for (int i = 0; i < kChunksMax && read_at(position, head); i++) {
        const uint32_t chunk_bytes =
            head[4] | uint32_t{head[5]} << 8 | uint32_t{head[6]} << 16 | uint32_t{head[7]} << 24;
        position += int64_t{8} + chunk_bytes;
        if (std::memcmp(head.data(), "data", 4) == 0) {
            return chunk_bytes < kSizeUnknown && position > size;
        }
        position += chunk_bytes & 1;
    }
    return false;
}

// An EBML element, RFC 8794. The leading zeros of identifier and size say how long these are.
struct element {
    uint64_t id = 0;
    uint64_t size = 0;
    int64_t begin = 0; // of its data
    bool has_size = true;
};

static constexpr unsigned kIdBytesMax = 4, kSizeBytesMax = 8;

static uint64_t take_number(const uint8_t *bytes, unsigned width)
{
    uint64_t number = 0;
    for (unsigned i = 0; i < width; i++) {
        number = number << 8 | bytes[i];
    }
    return number;
}

// in: the longest possible head of an element, or as much of it as the file has
// returns: the element; nothing for an invalid head. A cut head gives a begin after the end of the
//          file.
static std::optional<element> read_element(std::span<const uint8_t> head, int64_t position)
{
    const unsigned id_bytes = static_cast<unsigned>(std::countl_zero(head[0])) + 1;
    if (id_bytes > kIdBytesMax) {
        return std::nullopt;
    }
    element found = {.begin = position + id_bytes + 1};
    if (head.size() <= id_bytes) {
        return found;
    }
    const unsigned size_bytes = static_cast<unsigned>(std::countl_zero(head[id_bytes])) + 1;
    if (size_bytes > kSizeBytesMax) {
        return std::nullopt;
    }
    found.begin = position + id_bytes + size_bytes;
    if (head.size() >= id_bytes + size_bytes) {
        const uint64_t mask = (uint64_t{1} << 7 * size_bytes) - 1;
        found.id = take_number(head.data(), id_bytes);
        found.size = take_number(&head[id_bytes], size_bytes) & mask;
        // All ones: the element ends where its parent's next child begins.
        found.has_size = found.size != mask;
    }
    return found;
}

static bool is_cut_matroska(const byte_reader &read_at, int64_t size)
{
    std::array<uint8_t, kIdBytesMax + kSizeBytesMax> head = {};
    int64_t position = 0;
    while (position < size) {
        const size_t head_bytes =
            static_cast<size_t>(std::min<int64_t>(head.size(), size - position));
        const std::span<uint8_t> bytes(head.data(), head_bytes);
        const std::optional<element> found =
            read_at(position, bytes) ? read_element(bytes, position) : std::nullopt;
        if (!found) {
            return false; // damaged, not cut
        }
        if (found->begin > size ||
            (found->has_size && found->size > static_cast<uint64_t>(size - found->begin))) {
            return true;
        }
        position = found->begin + (found->has_size ? static_cast<int64_t>(found->size) : 0);
    }
    return false;
}

// Transport packets: plain, after a time stamp of 4 bytes, or before 16 bytes of error correction.
static constexpr size_t kPacketBytes = 188, kTimedBytes = 192, kCheckedBytes = 204;
static constexpr uint8_t kSync = 0x47;
static constexpr size_t kPacketsTried = 8;

// returns: whether packets of this stride end `rest` bytes before the end of the file
static bool has_packets(std::span<const uint8_t> tail, size_t stride, size_t rest)
{
    for (size_t i = 0; i < kPacketsTried; i++) {
        const size_t from_end = rest + kPacketBytes + i * stride;
        if (from_end > tail.size() || tail[tail.size() - from_end] != kSync) {
            return false;
        }
    }
    return true;
}

struct packet_row {
    size_t stride;
    size_t rest; // after the last packet
};

static std::optional<packet_row> find_packets(const byte_reader &read_at, int64_t size)
{
    std::array<uint8_t, (kPacketsTried + 1) * kCheckedBytes> block = {};
    const std::span<uint8_t> tail(block.data(), std::min(block.size(), static_cast<size_t>(size)));
    if (!read_at(size - static_cast<int64_t>(tail.size()), tail)) {
        return std::nullopt;
    }
    for (const size_t stride : {kPacketBytes, kTimedBytes, kCheckedBytes}) {
        for (size_t rest = 0; rest < stride; rest++) {
            if (has_packets(tail, stride, rest)) {
                return packet_row{stride, rest};
            }
        }
    }
    return std::nullopt;
}

// A recorded broadcast may end anywhere, but not within a packet.
static bool is_cut_transport_stream(const byte_reader &read_at, int64_t size)
{
    const std::optional<packet_row> row = find_packets(read_at, size);
    if (!row) {
        return false; // damaged, not cut
    }
    const size_t whole_rest = row->stride == kCheckedBytes ? kCheckedBytes - kPacketBytes : 0;
    return row->rest != 0 && row->rest != whole_rest;
}

std::string file_cut_text(const char *format, const byte_reader &file, int64_t size)
{
    if (std::strcmp(format, "wav") == 0) {
        return is_cut_wave(file, size) ? "the file is shorter than its header says" : "";
    }
    if (std::strcmp(format, "matroska,webm") == 0) {
        return is_cut_matroska(file, size) ? "the file is shorter than its elements say" : "";
    }
    if (std::strcmp(format, "mpegts") == 0) {
        return is_cut_transport_stream(file, size) ? "its last packet is incomplete" : "";
    }
    return "";
}

std::string file_cut_text(const char *format, int file, int64_t size)
{
    const auto read_at = [file](int64_t position, std::span<uint8_t> bytes) {
        return pread(file, bytes.data(), bytes.size(), position) ==
               static_cast<ssize_t>(bytes.size());
    };
    return file_cut_text(format, read_at, size);
}
