// The part that the writing and the reading half of the bitstream share: byte order, position and
// file.
#ifndef MP4MUX_BITSTREAM_FILE_H
#define MP4MUX_BITSTREAM_FILE_H

#include "mp4mux/bitstream.h"

#include <cstdint>

// The order of a number's bytes.
enum class byte_order { big, little };

// The file position of the next byte.
[[nodiscard]] inline int64_t bs_position(const mp4_mux_bs_t *bs)
{
    return bs->m_llFilePos + bs->m_uiFill;
}

// Records that the open file could not be closed, with its handle as auxiliary value.
// returns: MUX_ERR_CLOSE
int32_t bs_fail_to_close(const mp4_mux_bs_t *bs);

// Records a failed seek in the open file.
// returns: MUX_ERR_SEEK
int32_t bs_fail_to_seek(const mp4_mux_bs_t *bs);

// Sets m_llFilePos from the file, if one is open.
// returns: 0, or MUX_ERR_SEEK with the message
[[nodiscard]] int32_t bs_refresh(mp4_mux_bs_t *bs, const char *message);

// Empties the cache and seeks the open file.
// returns: the callback's result, or MUX_ERR_SEEK for a position that it cannot express
[[nodiscard]] int32_t bs_seek_file(mp4_mux_bs_t *bs, int64_t position);

// Writes the cached bytes to the file. A file that cannot report its position afterwards is no
// failure.
// returns: whether all bytes are stored
[[nodiscard]] bool bs_write_out(mp4_mux_bs_t *bs);

// Makes an earlier position the next one to write, so that the bytes after it are overwritten.
// Calls nothing: a seek that it needs precedes the next write.
void bs_take_back(mp4_mux_bs_t *bs, int64_t position);

// Lends the free part of the cache, at most max (above 0) bytes, for the next bytes to write; the
// caller adds the number of bytes it stores to m_uiFill. A full cache is written to the file first.
// out: space: valid until the bitstream's next use
// returns: number of bytes (1 to max), or an error as mp4_mux_bs_write_bytes
[[nodiscard]] int32_t bs_lend_space(mp4_mux_bs_t *bs, int32_t max, uint8_t **space);

// Shows up to max (above 0) of the next bytes to read in place, without consuming them: the caller
// adds the number of bytes it takes to m_uiFill.
// out: bytes: valid until the bitstream's next use
// returns: number of bytes (1 to max), or an error as mp4_mux_bs_read_bytes
[[nodiscard]] int32_t bs_borrow_bytes(mp4_mux_bs_t *bs, int32_t max, const uint8_t **bytes);

#endif // MP4MUX_BITSTREAM_FILE_H
