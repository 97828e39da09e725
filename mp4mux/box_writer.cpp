#include "mp4mux/box_writer.h"

#include "mp4mux/bitstream_file.h"
#include "mp4mux/mux_error.h"

int32_t mp4_mux_bs_write_tag(mp4_mux_bs_t *bs, const char *text)
{
    for (; *text != '\0'; text++) {
        mp4_mux_bs_write_be8(bs, static_cast<uint8_t>(*text));
    }
    return 0;
}

void write_code(mp4_mux_bs_t *bs, uint32_t code)
{
    for (int i = 0; i < 4 && (code & 0xFF) != 0; i++, code >>= 8) {
        mp4_mux_bs_write_be8(bs, code);
    }
}

int64_t begin_box(mp4_mux_bs_t *bs, const char *type)
{
    const int64_t start = bs_position(bs);
    mp4_mux_bs_write_be32(bs, 0);   // unsigned int(32) size;
    mp4_mux_bs_write_tag(bs, type); // unsigned int(32) type;
    return start;
}

bool is_in_cache(const mp4_mux_bs_t *bs, int64_t position)
{
    return position >= bs->m_llFilePos && position + kSizeFieldBytes <= bs_position(bs);
}

void patch_in_cache(mp4_mux_bs_t *bs, int64_t position, uint32_t value)
{
    const uint32_t fill = bs->m_uiFill;
    bs->m_uiFill = static_cast<uint32_t>(position - bs->m_llFilePos);
    mp4_mux_bs_write_be32(bs, value);
    bs->m_uiFill = fill;
}

// Writes a 32-bit value at a position that has left the cache and returns to the end. If the value
// is missing or the end is lost, the bitstream is marked as torn.
// returns: null, or the tag of the step that failed
static const char *patch_in_file(mp4_mux_bs_t *bs, int64_t position, uint32_t value)
{
    const int64_t end = bs_position(bs);
    if (mp4_mux_bs_write_fseek_reset(bs, position) != 0) {
        if (bs->m_uiFill == 0) { // flushed, but the seek failed: the next bytes belong at the end
            (void)mp4_mux_bs_fseek_reset(bs, end);
        }
        bs->m_bTorn = 1;
        return "<update_size1";
    }
    mp4_mux_bs_write_be32(bs, value);
    const bool stored = bs_position(bs) == position + kSizeFieldBytes;
    if (!stored || mp4_mux_bs_write_fseek_reset(bs, end) != 0) {
        // The next bytes must not overwrite the box's first ones: give up the size instead.
        if (mp4_mux_bs_fseek_reset(bs, end) != 0 || !stored) {
            bs->m_bTorn = 1;
        }
        return stored ? "<update_size3" : "<update_size2";
    }
    return nullptr;
}

int32_t update_size(mp4_mux_bs_t *bs, int64_t start)
{
    const uint32_t box_bytes = static_cast<uint32_t>(bs_position(bs) - start);
    if (is_in_cache(bs, start)) {
        patch_in_cache(bs, start, box_bytes);
        return static_cast<int32_t>(box_bytes);
    }
    const char *failed = patch_in_file(bs, start, box_bytes);
    if (failed != nullptr) {
        return mp4_mux_add_err_string(failed, bs->m_pstError);
    }
    return static_cast<int32_t>(box_bytes);
}
