#include "mp4mux/moov/avc_config.h"

#include "mp4mux/avc_record.h"
#include "mp4mux/avc_syntax.h"

#include <cstddef>
#include <cstring>
#include <span>

using byte_span = std::span<const uint8_t>;

static constexpr int32_t kMinConfigBytes = 7;
static constexpr size_t kMaxCollectedBytes = 1024;

static bool is_aligned(const uint8_t *at)
{
    return (reinterpret_cast<uintptr_t>(at) & 3) == 0;
}

static bool has_zero_byte(const uint8_t *at)
{
    uint32_t word = 0;
    std::memcpy(&word, at, sizeof(word));
    return ((word - 0x01010101) & ~word & 0x80808080) != 0;
}

// Finds the next start code from `from` on, a zero byte before it included.
// returns: its position, or the end of the data
static size_t find_start_code(byte_span data, size_t from)
{
    size_t at = from;
    while (at + 3 <= data.size()) {
        if (at + 4 <= data.size() && is_aligned(&data[at]) && !has_zero_byte(&data[at])) {
            at += 4;
            continue;
        }
        if (data[at] == 0 && data[at + 1] == 0 && data[at + 2] == 1) {
            return at > from && data[at - 1] == 0 ? at - 1 : at;
        }
        at++;
    }
    return data.size();
}

static void note_parameter_set(nal_unit unit, parameter_sets *found)
{
    const uint8_t type = nal_unit_type(unit);
    if (type == kNalTypeSps && unit.size() >= kMinSpsBytes) {
        found->sps = unit;
    } else if (type == kNalTypePps) {
        found->pps = unit;
    }
}

// Splits Annex B into its units until both parameter sets are found.
static parameter_sets find_parameter_sets(byte_span data)
{
    parameter_sets found = {};
    size_t collected = 0;
    size_t at = find_start_code(data, 0);
    while (at < data.size() && (found.sps.empty() || found.pps.empty())) {
        while (data[at] == 0) { // a start code ends with its 1
            at++;
        }
        const size_t begin = at + 1;
        at = find_start_code(data, begin);
        const nal_unit unit = data.subspan(begin, at - begin);
        if (!unit.empty() && collected + kNalLengthBytes + unit.size() <= kMaxCollectedBytes) {
            collected += kNalLengthBytes + unit.size();
            note_parameter_set(unit, &found);
        }
    }
    return found;
}

int32_t isom_write_avcc(mp4_mux_t *mux, const uint8_t *data, int32_t data_bytes)
{
    mp4_mux_bs_t *bs = mux->m_pBs;
    if (data_bytes < kMinConfigBytes) {
        return 0;
    }
    const byte_span bytes = {data, static_cast<size_t>(data_bytes)};
    if (find_start_code(bytes.first(4), 0) != 0) {
        (void)mp4_mux_bs_write_bytes(bs, data, data_bytes); // a record already
        return 0;
    }
    const parameter_sets sets = find_parameter_sets(bytes);
    if (!sets.sps.empty()) {
        write_avc_record(bs, sets);
    }
    return 0;
}
