#include "client/input/nal_unit.h"

#include <algorithm>
#include <cstring>

using bytes = std::span<const uint8_t>;

// Leading zeros of an Exp-Golomb code whose value fits 32 bits.
static constexpr unsigned kZerosMax = 31;

// returns: the position of the next 00 00 01 at or after `from`; the size when there is none
static size_t find_start_code(bytes data, size_t from)
{
    for (size_t at = from + 2; at < data.size(); at++) {
        const void *const one = std::memchr(&data[at], 1, data.size() - at);
        if (one == nullptr) {
            break;
        }
        at = static_cast<size_t>(static_cast<const uint8_t *>(one) - data.data());
        if (data[at - 1] == 0 && data[at - 2] == 0) {
            return at - 2;
        }
    }
    return data.size();
}

static bytes without_trailing_zeros(bytes nal)
{
    while (!nal.empty() && nal.back() == 0) {
        nal = nal.first(nal.size() - 1);
    }
    return nal;
}

bool nal_split_at_start_codes(bytes data, std::vector<bytes> &nals)
{
    size_t at = find_start_code(data, 0);
    if (std::any_of(data.begin(), data.begin() + static_cast<ptrdiff_t>(at),
                    [](uint8_t byte) { return byte != 0; })) {
        return false;
    }
    while (at < data.size()) {
        const size_t begin = at + 3;
        at = find_start_code(data, begin);
        const bytes nal = without_trailing_zeros(data.subspan(begin, at - begin));
        if (!nal.empty()) {
            nals.push_back(nal);
        }
    }
    return true;
}

std::optional<bytes> nal_take_with_length(bytes &data, unsigned length_bytes)
{
    if (data.size() < length_bytes) {
        return std::nullopt;
    }
    size_t length = 0;
    for (const uint8_t byte : data.first(length_bytes)) {
        length = length << 8 | byte;
    }
    data = data.subspan(length_bytes);
    if (length > data.size()) {
        return std::nullopt;
    }
    const bytes nal = data.first(length);
    data = data.subspan(length);
    return nal;
}

bool nal_split_by_lengths(bytes data, unsigned length_bytes, std::vector<bytes> &nals)
{
    while (!data.empty()) {
        const std::optional<bytes> taken = nal_take_with_length(data, length_bytes);
        // A start code inside would become a unit of its own in the start-code form.
        if (!taken || find_start_code(*taken, 0) != taken->size()) {
            return false;
        }
        const bytes nal = without_trailing_zeros(*taken);
        if (!nal.empty()) {
            nals.push_back(nal);
        }
    }
    return true;
}

nal_head nal_head_open(bytes nal, size_t skipped_bytes)
{
    nal_head head;
    unsigned zeros = 0;
    size_t filled = 0;
    for (size_t i = 1 + skipped_bytes; i < nal.size() && filled < head.payload.size(); i++) {
        if (zeros >= 2 && nal[i] == 3) {
            zeros = 0;
            continue;
        }
        zeros = nal[i] == 0 ? zeros + 1 : 0;
        head.payload[filled++] = nal[i];
    }
    head.size_bits = filled * 8;
    return head;
}

static std::optional<unsigned> read_bit(nal_head &head)
{
    if (head.at_bits >= head.size_bits) {
        return std::nullopt;
    }
    const unsigned byte = head.payload[head.at_bits / 8];
    return byte >> (7 - head.at_bits++ % 8) & 1u;
}

std::optional<unsigned> nal_head_u(nal_head &head, unsigned bits)
{
    unsigned value = 0;
    for (unsigned i = 0; i < bits; i++) {
        const std::optional<unsigned> bit = read_bit(head);
        if (!bit) {
            return std::nullopt;
        }
        value = value << 1 | *bit;
    }
    return value;
}

std::optional<unsigned> nal_head_ue(nal_head &head)
{
    unsigned zeros = 0;
    std::optional<unsigned> bit = read_bit(head);
    for (; bit && *bit == 0; bit = read_bit(head)) {
        if (++zeros > kZerosMax) {
            return std::nullopt;
        }
    }
    const std::optional<unsigned> suffix = nal_head_u(head, zeros);
    return bit && suffix ? std::optional<unsigned>((1u << zeros) - 1 + *suffix) : std::nullopt;
}
