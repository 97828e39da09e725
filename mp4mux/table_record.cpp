#include "mp4mux/table_record.h"

#include "mp4mux/bitstream_file.h"

static bool append_byte(mp4_mux_bs_t *bs, uint8_t byte)
{
    const int64_t start = bs_position(bs);
    for (int attempt = 0; attempt < 2 && bs_position(bs) == start; attempt++) {
        mp4_mux_bs_write_be8(bs, byte);
    }
    return bs_position(bs) != start;
}

static bool append_record(mp4_mux_bs_t *bs, uint64_t value, uint32_t bytes)
{
    for (uint32_t stored = 0; stored < bytes; stored++) {
        const uint32_t shift = 8 * (bytes - 1 - stored);
        if (!append_byte(bs, static_cast<uint8_t>(value >> shift))) {
            // The cache was full and could not be written, so the record's start still lies in it.
            bs->m_uiFill -= stored < bs->m_uiFill ? stored : bs->m_uiFill;
            return false;
        }
    }
    return true;
}

bool append_be32(mp4_mux_bs_t *bs, uint32_t value)
{
    return append_record(bs, value, 4);
}

bool append_be64(mp4_mux_bs_t *bs, uint64_t value)
{
    return append_record(bs, value, 8);
}

static bool append_run_of(mp4_mux_track_t *p_track, int32_t count, int32_t ticks)
{
    const uint64_t high = static_cast<uint32_t>(count);
    return append_be64(&p_track->m_BsSTTSDts, high << 32 | static_cast<uint32_t>(ticks));
}

bool append_run(mp4_mux_track_t *p_track)
{
    return append_run_of(p_track, p_track->m_iSttsRunCount, p_track->m_iSttsRunDelta);
}

bool append_filler_run(mp4_mux_track_t *p_track)
{
    return append_run_of(p_track, 1, 0);
}
