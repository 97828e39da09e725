// Converts H.264 access units to the component's form: the slices of a picture after four-byte
// start codes, with the parameter sets before every IDR picture.
#ifndef CLIENT_INPUT_ACCESS_UNIT_CONVERTER_H
#define CLIENT_INPUT_ACCESS_UNIT_CONVERTER_H

#include <cstdint>
#include <span>
#include <vector>

// One parameter set; a later one of the same kind and number replaces it.
struct parameter_set {
    unsigned type;              // nal_unit_type
    unsigned number;            // its identifier in the stream
    std::vector<uint8_t> bytes; // the NAL unit
    bool is_new = false;        // the first picture had none of this kind and number
};

// The state of the conversion of one stream.
struct access_unit_converter {
    unsigned length_bytes = 0;       // size of the length fields; 0 in a stream with start codes
    std::vector<parameter_set> sets; // sequence before picture
    std::vector<uint8_t> sent;       // the sets before the first IDR picture
    unsigned damaged_sets = 0;       // left out: they lack even an identifier
};

enum class unit_verdict {
    ready,       // the access unit is complete
    empty,       // no picture in it
    malformed,   // not valid in the stream's form
    no_sets,     // an IDR picture, but no parameter sets so far
    partitioned, // a picture in data partitions
};

struct access_unit {
    std::vector<uint8_t> bytes;
    bool idr = false;
    bool bi_predicted = false; // a slice is a B slice
    // Of an IDR picture: the stream's sets, if they differ from those of the first picture. `bytes`
    // begins with those of the first picture all the same.
    std::vector<uint8_t> other_sets;
};

// Reads a container's decoder configuration.
// in: an avcC record, whose first byte is 1, or parameter sets in start-code form; empty for a
//     stream that carries everything itself
// returns: false when it is damaged
[[nodiscard]] bool access_unit_configure(access_unit_converter &converter,
                                         std::span<const uint8_t> configuration);

// Converts one access unit.
// in: its bytes in the stream's form
// out: the unit, complete only when the result is `ready`
[[nodiscard]] unit_verdict access_unit_convert(access_unit_converter &converter,
                                               std::span<const uint8_t> packet, access_unit &unit);

// Replaces the parameter sets before a converted IDR picture when those of the first picture turn
// out to be damaged.
// in: sets in start-code form, as `other_sets`
void access_unit_replace_sets(const access_unit_converter &converter, access_unit &unit,
                              std::span<const uint8_t> sets);

// Makes these sets the stream's own from now on.
// in: sets in start-code form
void access_unit_adopt_sets(access_unit_converter &converter, std::span<const uint8_t> sets);

// in: a converter that has converted the first IDR picture
// returns: the decoder configuration for a file: one sequence and one picture set in start-code
//          form, or an avcC record if there are more
std::vector<uint8_t> access_unit_configuration(const access_unit_converter &converter);

// in: a converted unit
// returns: its slices for a file, each after its length (32 bits, big-endian)
std::vector<uint8_t> access_unit_with_lengths(const access_unit &unit);

#endif // CLIENT_INPUT_ACCESS_UNIT_CONVERTER_H
