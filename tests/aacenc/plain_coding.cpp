#include "tests/aacenc/plain_encoder.h"

#include <algorithm>
#include <cstdlib>

#include "aacenc/huffman_tables.h"
#include "aacenc/quantiser_tables.h"

int32_t plain_power(uint32_t magnitude)
{
    if (magnitude <= 8191)
        return CalcPow34[magnitude];
    int32_t row = 4;
    while (magnitude < static_cast<uint32_t>(CalcPow_RageTable[row].start))
        row--;
    const PowerLine &line = CalcPow_RageTable[row];
    return line.base +
           static_cast<int32_t>(((int64_t{magnitude} - line.start) * line.slope_q32) >> 32);
}

int32_t plain_quantise(int32_t line, int32_t power, int32_t factor_q29)
{
    const int64_t product_q29 = int64_t{power} * factor_q29 + (1 << 27);
    return static_cast<int32_t>(line > 0 ? product_q29 >> 29 : -(product_q29 >> 29));
}

int32_t plain_bits(int32_t book, const int32_t *values, int32_t count)
{
    const bool has_signs = book == 3 || book == 4 || book >= 7;
    const int32_t group = book <= 4 ? 4 : 2;
    const int32_t base = book <= 4 ? 3 : book <= 6 ? 9 : book <= 8 ? 8 : book <= 10 ? 13 : 17;
    int32_t bits = 0;
    for (int32_t k = 0; k < count; k += group) {
        int32_t index = has_signs ? 0 : 40;
        for (int32_t i = 0, place = group == 4 ? 27 : base; i < group; i++) {
            const int32_t value = values[k + i];
            const int32_t magnitude = std::abs(value);
            index += (has_signs ? std::min(magnitude, book == 11 ? 16 : magnitude) : value) *
                     (i == group - 1 ? 1 : place);
            place /= 3;
            bits += has_signs && value != 0;
            for (int32_t power = 16; book == 11 && magnitude >= power; power *= 2)
                bits += power == 16 ? 5 : 2;
        }
        bits += static_cast<int32_t>(huff_table[book - 1][index] >> 24);
    }
    return bits;
}
