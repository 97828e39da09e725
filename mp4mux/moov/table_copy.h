// From a scratch table to its box: the caches for the copy, and the copy itself.
//
// No memory is allocated here. While the movie box is written, the output's cache and that of the
// table being read are placed in the muxer's cache block and the memory lent for the close.
#ifndef MP4MUX_MOOV_TABLE_COPY_H
#define MP4MUX_MOOV_TABLE_COPY_H

#include "mp4mux/mux_context.h"

#include <cstdint>

// Closes a scratch file, if one is open, and removes it (not if name is null). A file whose close
// failed before is not closed again; the failure is reported once more.
// returns: 0 or MUX_ERR_CLOSE
[[nodiscard]] int32_t close_scratch(mp4_mux_bs_t *scratch, const char *name);

// Moves a bitstream's cache, with the bytes not yet written, to a buffer; flushes first if they
// would not fit.
// returns: 0 or the flush's error, tag "<reset_write_cache2"
[[nodiscard]] int32_t reset_write_cache2(mp4_mux_bs_t *bs, uint8_t *buffer, int32_t buffer_bytes);

// Sizes a scratch table and shares the memory between the output's cache and the table's. A table
// without a file will be read from the start of its cache; with an append callback a table with a
// file is left alone.
// in: p_track: unused
// in: work_bytes: free bytes at the start of the cache block
// returns: 0 or a negative code; tag "<calc_stxx_cache"
[[nodiscard]] int32_t calc_stxx_cache(mp4_mux_t *mux, mp4_mux_track_t *p_track,
                                      mp4_mux_bs_t *scratch, int32_t work_bytes);

// Copies the first table_bytes of a scratch table to the output. A scratch file that fits its
// cache is closed and removed (name not null) before they are written; a larger one is read
// straight into the output's cache.
// returns: 0 or a negative code; tag "<bs_direct_copy"
[[nodiscard]] int32_t bs_direct_copy(mp4_mux_bs_t *out, mp4_mux_bs_t *scratch, int64_t table_bytes,
                                     const char *name);

// Puts a scratch table that begins with its box header into the output: a file through the append
// callback, a table without one by copying. If the appended data leaves a gap after the box before
// it, that box is extended over the gap.
// in: p_track: unused
// in: box_bytes: size of the box
// returns: 0 or a negative code; tag "<append_file"; MUX_ERR_APPEND without a message or a tag
[[nodiscard]] int32_t append_file(mp4_mux_t *mux, mp4_mux_track_t *p_track, mp4_mux_bs_t *scratch,
                                  int64_t box_bytes, const char *name);

#endif // MP4MUX_MOOV_TABLE_COPY_H
