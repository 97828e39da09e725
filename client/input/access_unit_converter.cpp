#include "client/input/access_unit_converter.h"

#include "client/input/nal_unit.h"

#include <algorithm>
#include <optional>

using bytes = std::span<const uint8_t>;

static constexpr uint8_t kStartCode[4] = {0, 0, 0, 1};

// Of a configuration record, with the counts of its sets.
static constexpr size_t kRecordBytesMin = 7;

static bool keep_parameter_set(access_unit_converter &converter, bytes nal)
{
    const unsigned type = nal_type(nal);
    // A sequence set has profile_idc, constraint flags and level_idc before its identifier.
    nal_head head = nal_head_open(nal, type == kNalSps ? 3 : 0);
    const std::optional<unsigned> number = nal_head_ue(head);
    if (!number) {
        return false;
    }
    const auto same = [&](const parameter_set &set) {
        return set.type == type && set.number == *number;
    };
    const auto known = std::find_if(converter.sets.begin(), converter.sets.end(), same);
    if (known != converter.sets.end()) {
        known->bytes.assign(nal.begin(), nal.end());
        return true;
    }
    const auto after = [](unsigned kind, const parameter_set &set) { return kind < set.type; };
    const auto place = std::upper_bound(converter.sets.begin(), converter.sets.end(), type, after);
    converter.sets.insert(place,
                          {type, *number, {nal.begin(), nal.end()}, !converter.sent.empty()});
    return true;
}

static void append(std::vector<uint8_t> &out, bytes nal)
{
    out.insert(out.end(), std::begin(kStartCode), std::end(kStartCode));
    out.insert(out.end(), nal.begin(), nal.end());
}

static bool has_set(const std::vector<parameter_set> &sets, unsigned type)
{
    return std::any_of(sets.begin(), sets.end(),
                       [=](const parameter_set &set) { return set.type == type; });
}

// A set of a kind and number that the first picture did not have is valid for one picture: unless
// the stream repeats it, it was a damaged one.
static void forget_new_sets(access_unit_converter &converter)
{
    std::erase_if(converter.sets, [](const parameter_set &set) { return set.is_new; });
}

static unit_verdict put_sets_before(access_unit_converter &converter, access_unit &unit)
{
    std::vector<uint8_t> sets;
    for (const parameter_set &set : converter.sets) {
        append(sets, set.bytes);
    }
    if (converter.sent.empty()) {
        if (!has_set(converter.sets, kNalSps) || !has_set(converter.sets, kNalPps)) {
            return unit_verdict::no_sets;
        }
        converter.sent = sets;
    }
    unit.bytes = converter.sent;
    if (sets != converter.sent) {
        unit.other_sets = std::move(sets);
        forget_new_sets(converter);
    }
    return unit_verdict::ready;
}

// Keeps the parameter sets among the NAL units.
// out: the picture's slices
static unit_verdict find_slices(access_unit_converter &converter, const std::vector<bytes> &nals,
                                std::vector<bytes> &slices)
{
    for (const bytes nal : nals) {
        const unsigned type = nal_type(nal);
        if ((nal[0] & 0x80) != 0) { // forbidden_zero_bit
            return unit_verdict::malformed;
        }
        if (type >= kNalPartitionA && type <= kNalPartitionC) {
            return unit_verdict::partitioned;
        }
        if ((type == kNalSps || type == kNalPps) && !keep_parameter_set(converter, nal)) {
            converter.damaged_sets++;
        }
        if (type == kNalSlice || type == kNalIdr) {
            slices.push_back(nal);
        }
    }
    return slices.empty() ? unit_verdict::empty : unit_verdict::ready;
}

// out: the unit's flags
// returns: false when the picture is not complete
static bool read_slice_headers(const std::vector<bytes> &slices, access_unit &unit)
{
    unit.idr = nal_type(slices.front()) == kNalIdr;
    unit.bi_predicted = false;
    for (const bytes &slice : slices) {
        nal_head head = nal_head_open(slice, 0);
        const std::optional<unsigned> first_mb_in_slice = nal_head_ue(head);
        const std::optional<unsigned> slice_type = nal_head_ue(head);
        const bool leads = &slice == &slices.front();
        if (!first_mb_in_slice || !slice_type || (leads && *first_mb_in_slice != 0)) {
            return false;
        }
        unit.bi_predicted = unit.bi_predicted || *slice_type % 5 == 1;
    }
    return true;
}

// Takes the parameter sets of an AVCDecoderConfigurationRecord: version, profile, compatibility,
// level, length size, then the sequence sets and the picture sets, each after their count.
// returns: false when the record is cut
// source: ISO/IEC 14496-15, 5.2.4.1
static bool take_record(access_unit_converter &converter, bytes record, std::vector<bytes> &sets)
{
    if (record.size() < kRecordBytesMin) {
        return false;
    }
    converter.length_bytes = (record[4] & 3u) + 1;
    bytes rest = record.subspan(5);
    for (const unsigned count_mask : {0x1Fu, 0xFFu}) {
        if (rest.empty()) {
            return false;
        }
        unsigned count = rest[0] & count_mask;
        rest = rest.subspan(1);
        for (; count > 0; count--) {
            const std::optional<bytes> set = nal_take_with_length(rest, 2);
            if (!set || set->empty()) {
                return false;
            }
            sets.push_back(*set);
        }
    }
    return true;
}

bool access_unit_configure(access_unit_converter &converter, std::span<const uint8_t> configuration)
{
    std::vector<bytes> nals;
    if (!configuration.empty()) {
        const bool is_record = configuration[0] == 1; // configurationVersion
        if (!(is_record ? take_record(converter, configuration, nals)
                        : nal_split_at_start_codes(configuration, nals))) {
            return false;
        }
    }
    return std::all_of(nals.begin(), nals.end(), [&](bytes nal) {
        const unsigned type = nal_type(nal);
        return (type != kNalSps && type != kNalPps) || keep_parameter_set(converter, nal);
    });
}

unit_verdict access_unit_convert(access_unit_converter &converter, std::span<const uint8_t> packet,
                                 access_unit &unit)
{
    unit.bytes.clear();
    unit.other_sets.clear();
    std::vector<bytes> nals;
    const bool split = converter.length_bytes == 0
                           ? nal_split_at_start_codes(packet, nals)
                           : nal_split_by_lengths(packet, converter.length_bytes, nals);
    if (!split) {
        return unit_verdict::malformed;
    }
    std::vector<bytes> slices;
    unit_verdict verdict = find_slices(converter, nals, slices);
    if (verdict != unit_verdict::ready) {
        return verdict;
    }
    if (!read_slice_headers(slices, unit)) {
        return unit_verdict::malformed;
    }
    if (unit.idr) {
        verdict = put_sets_before(converter, unit);
    }
    for (const bytes slice : slices) {
        append(unit.bytes, slice);
    }
    return verdict;
}

void access_unit_replace_sets(const access_unit_converter &converter, access_unit &unit,
                              std::span<const uint8_t> sets)
{
    const auto slices = unit.bytes.begin() + static_cast<ptrdiff_t>(converter.sent.size());
    std::vector<uint8_t> replaced(sets.begin(), sets.end());
    replaced.insert(replaced.end(), slices, unit.bytes.end());
    unit.bytes = std::move(replaced);
    unit.other_sets.clear();
}

void access_unit_adopt_sets(access_unit_converter &converter, std::span<const uint8_t> sets)
{
    std::vector<bytes> nals;
    (void)nal_split_at_start_codes(sets, nals); // they were joined in this unit
    converter.sent.clear();
    converter.sets.clear();
    for (const bytes nal : nals) {
        (void)keep_parameter_set(converter, nal);
    }
    converter.sent.assign(sets.begin(), sets.end());
}

// unsigned int, big-endian
static void append_number(std::vector<uint8_t> &out, size_t value, unsigned width)
{
    for (; width > 0; width--) {
        out.push_back(static_cast<uint8_t>(value >> 8 * (width - 1)));
    }
}

std::vector<uint8_t> access_unit_configuration(const access_unit_converter &converter)
{
    std::vector<bytes> sets;
    (void)nal_split_at_start_codes(converter.sent, sets); // they were joined in this unit
    if (sets.size() <= 2) {
        return converter.sent;
    }
    const auto pictures =
        std::find_if(sets.begin(), sets.end(), [](bytes set) { return nal_type(set) == kNalPps; });
    const bytes first = sets.front();
    std::vector<uint8_t> record = {1, first[1], first[2], first[3], 0xFF};
    record.push_back(static_cast<uint8_t>(0xE0 | (pictures - sets.begin())));
    for (auto set = sets.begin(); set != sets.end(); set++) {
        if (set == pictures) {
            record.push_back(static_cast<uint8_t>(sets.end() - pictures));
        }
        append_number(record, set->size(), 2);
        record.insert(record.end(), set->begin(), set->end());
    }
    return record;
}

std::vector<uint8_t> access_unit_with_lengths(const access_unit &unit)
{
    std::vector<bytes> nals;
    (void)nal_split_at_start_codes(unit.bytes, nals);
    std::vector<uint8_t> joined;
    for (const bytes nal : nals) {
        if (nal_type(nal) != kNalSps && nal_type(nal) != kNalPps) {
            append_number(joined, nal.size(), 4);
            joined.insert(joined.end(), nal.begin(), nal.end());
        }
    }
    return joined;
}
