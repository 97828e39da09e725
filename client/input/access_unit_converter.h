// Brings H.264 access units to the form that the component takes: four-byte start codes, the
// parameter sets in front of every IDR picture, and nothing else but the picture's slices.
#ifndef CLIENT_INPUT_ACCESS_UNIT_CONVERTER_H
#define CLIENT_INPUT_ACCESS_UNIT_CONVERTER_H

#include <cstdint>
#include <span>
#include <vector>

// nal_unit_type of parameter sets, ISO/IEC 14496-10, table 7-1
inline constexpr unsigned kNalSps = 7, kNalPps = 8;

// One parameter set; a later one of the same kind and number replaces it.
struct parameter_set {
    unsigned type;              // kNalSps or kNalPps
    unsigned number;            // its identifier in the stream
    std::vector<uint8_t> bytes; // the NAL unit
    bool is_new = false;        // there was none of its kind and number at the first picture
};

// What the conversion knows of a stream.
struct access_unit_converter {
    unsigned length_bytes = 0;       // 0: start codes; else the size of the lengths in front
    std::vector<parameter_set> sets; // sequence before picture
    std::vector<uint8_t> sent;       // the sets as they stood in front of the first IDR picture
    unsigned damaged_sets = 0;       // left out, since they could not even be told apart
};

enum class unit_verdict {
    ready,       // the access unit is complete
    empty,       // no picture in it
    malformed,   // not H.264 as announced
    no_sets,     // an IDR picture, but no parameter sets so far
    partitioned, // a picture in data partitions
};

struct access_unit {
    std::vector<uint8_t> bytes;
    bool idr = false;
    bool bi_predicted = false; // a slice is a B slice
    std::vector<uint8_t>
        other_sets; // of an IDR picture: the stream's sets, where they are no longer
                    // those of the first one, which are in front of it all the same
};

// Reads a container's decoder configuration: an avcC record (its first byte is 1) or parameter sets
// in start-code form; empty for a stream that carries everything itself.
// returns false when it is damaged.
[[nodiscard]] bool access_unit_configure(access_unit_converter &converter,
                                         std::span<const uint8_t> configuration);

// Converts one access unit of the stream. in: its bytes in the stream's form. out: the unit,
// meaningful when the result is `ready`.
[[nodiscard]] unit_verdict access_unit_convert(access_unit_converter &converter,
                                               std::span<const uint8_t> packet, access_unit &unit);

// Gives an IDR picture that was converted other parameter sets in front: those of the stream when
// they turn out to be the damaged ones. The sets are in start-code form, as `other_sets`.
void access_unit_replace_sets(const access_unit_converter &converter, access_unit &unit,
                              std::span<const uint8_t> sets);

// From now on these sets are the stream's.
void access_unit_adopt_sets(access_unit_converter &converter, std::span<const uint8_t> sets);

// The decoder configuration of a stream whose first IDR picture has been converted, for a file: one
// sequence and one picture set in start-code form, an avcC record for more of them.
std::vector<uint8_t> access_unit_configuration(const access_unit_converter &converter);

// A converted unit's slices for a file, each behind its length (32 bits, big-endian).
std::vector<uint8_t> access_unit_with_lengths(const access_unit &unit);

#endif // CLIENT_INPUT_ACCESS_UNIT_CONVERTER_H
