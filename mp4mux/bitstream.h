// The cached bitstream: all bytes of a file pass through a cache that the owner lends.
//
// The file is reached through the callbacks of the muxer context m_pstMux. It may be opened by name
// when the cache first overflows; until then the bitstream is in memory only. The file position of
// the next byte is always m_llFilePos + m_uiFill.
//
// Failures go to the error record m_pstError. A bitstream either writes or reads; a fseek_reset
// separates the two. The members marked "exported only" are not called by the muxer.
#ifndef MP4MUX_BITSTREAM_H
#define MP4MUX_BITSTREAM_H

#include "mp4mux/mp4_mux.h"

#include <cstdint>

extern "C" {

struct mp4_mux_t;
struct mp4_mux_last_error_t;

struct mp4_mux_bs_t {
    uint8_t *m_pbyBase;        // the span in use; null before the first write or read
    uint8_t *m_pbyEnd;         // its end: of the cache when writing, of the bytes read when reading
    uint32_t m_uiValid;        // bytes that the last file write stored or the last read delivered
    uint32_t m_uiFill;         // writing: bytes in the cache; reading: bytes consumed
    void *m_hFile;             // open file, or null
    uint8_t *m_pbyCache;       // the cache, lent by the owner
    int32_t m_iCacheSize;      // its bytes
    int64_t m_llFilePos;       // file offset of cache byte 0
    const char *m_pszFileName; // opens the file when the cache overflows, mode "wb+"
    mp4_mux_t *m_pstMux;
    mp4_mux_last_error_t *m_pstError;
    int32_t m_bCloseFailed; // nonzero: closing m_hFile failed; it is not closed again
    int32_t m_bSeekDue;     // nonzero: the file may not be at m_llFilePos: seek before writing
    int32_t m_bTorn;        // nonzero: the file lacks bytes, or a box in it is incomplete
};

// Opening and closing

// Ties a bitstream to a cache and a file.
// in: bs: m_pstMux and m_pstError are set
// in: handle: open file, or null to open by name later
// returns: 0
// owns: cache stays the caller's and must outlive the bitstream's use
MP4_MUX_API int32_t mp4_mux_open_bitstream_from_external_memory(mp4_mux_bs_t *bs, uint8_t *cache,
                                                                int32_t cache_bytes, void *handle);

// Closes the file, if one is open. Cached bytes are not written.
// returns: 0, or MUX_ERR_CLOSE with the handle as auxiliary value; the handle is then kept
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_close_bitstream_from_external_memory(mp4_mux_bs_t *bs);

// As mp4_mux_open_bitstream_from_external_memory, with a cache that it allocates. Exported only.
// returns: 0 or MUX_ERR_MEMORY
// owns: the cache, until mp4_mux_close_bitstream
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_open_bitstream(mp4_mux_bs_t *bs, int32_t cache_bytes,
                                                         void *handle);

// Frees the cache of mp4_mux_open_bitstream and closes the file. Cached bytes are not written.
// Exported only.
// returns: 0 or MUX_ERR_CLOSE; the handle is then kept
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_close_bitstream(mp4_mux_bs_t *bs);

// Writing

// Appends count bytes; stops at the first error.
// returns: count (0 for a count below 1), or MUX_ERR_OPEN, MUX_ERR_WRITE, MUX_ERR_SEEK (position
//          unknown) or MUX_ERR_INVALID (no cache)
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_write_bytes(mp4_mux_bs_t *bs, const void *source,
                                                         int32_t count);

// Writes the cached bytes to the file. Without an open file they stay in the cache.
// returns: bytes written, or an error as above; the cached bytes are then kept for another try
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_write_flush(mp4_mux_bs_t *bs);

// Flushes and seeks. Without an open file it only drops the cached bytes.
// returns: the flush's error; else the seek callback's result, unrecorded; MUX_ERR_SEEK for a
//          position that 32-bit callbacks cannot express
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_write_fseek_reset(mp4_mux_bs_t *bs, int64_t position);

// Seeks within the cache when the target is among the cached bytes, and drops those after it. Other
// targets as mp4_mux_bs_write_fseek_reset. Exported only.
// returns: 0, or as there
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_write_fseek(mp4_mux_bs_t *bs, int64_t position);

// The fixed-width writers append the low bits of one value. A byte that cannot be stored is
// dropped and the failure recorded; the next byte tries again. The writers of more than one byte
// therefore always return 0, and their callers check the error record. le16 and le24 are exported
// only.
// returns: be8, 1byte: the byte, or an error as in mp4_mux_bs_write_bytes; all others: 0
MP4_MUX_API int32_t mp4_mux_bs_write_be8(mp4_mux_bs_t *bs, uint32_t value);
MP4_MUX_API int32_t mp4_mux_bs_write_1byte(mp4_mux_bs_t *bs, const uint8_t *byte);
MP4_MUX_API int32_t mp4_mux_bs_write_be16(mp4_mux_bs_t *bs, uint32_t value);
MP4_MUX_API int32_t mp4_mux_bs_write_be24(mp4_mux_bs_t *bs, uint32_t value);
MP4_MUX_API int32_t mp4_mux_bs_write_be32(mp4_mux_bs_t *bs, uint32_t value);
MP4_MUX_API int32_t mp4_mux_bs_write_be64(mp4_mux_bs_t *bs, uint64_t value);
MP4_MUX_API int32_t mp4_mux_bs_write_le16(mp4_mux_bs_t *bs, uint32_t value);
MP4_MUX_API int32_t mp4_mux_bs_write_le24(mp4_mux_bs_t *bs, uint32_t value);
MP4_MUX_API int32_t mp4_mux_bs_write_le32(mp4_mux_bs_t *bs, uint32_t value);

// Appends the difference of value to *previous, which becomes value: zigzag (sign in bit 0), in
// groups of 7 bits, the lowest first, bit 7 set on every byte but the last. Exported only.
// returns: bytes written (1 to 10), or the first error
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_write_value(mp4_mux_bs_t *bs, uint64_t value,
                                                         uint64_t *previous);

// Reading

// Seeks without writing anything. Without an open file it only empties the cache.
// returns: the seek callback's result, unrecorded; MUX_ERR_SEEK as above
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_fseek_reset(mp4_mux_bs_t *bs, int64_t position);

// Reads count bytes.
// returns: count (0 for a count below 1), MUX_ERR_EOF when the file ends before, MUX_ERR_INVALID
//          (no cache) or MUX_ERR_SEEK (position unknown)
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_read_bytes(mp4_mux_bs_t *bs, void *destination,
                                                        int32_t count);

// The remaining readers are exported only.

// Makes sure that the cache holds at least one unread byte.
// returns: number of unread bytes in the cache, or an error as above
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_ready_cache(mp4_mux_bs_t *bs);

// Copies the next count bytes without consuming them; count is at most the cache size.
// returns: count, or an error as above (MUX_ERR_INVALID also for a larger count)
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_show_bytes(mp4_mux_bs_t *bs, void *destination,
                                                        int32_t count);

// Skips count bytes.
// returns: 0 or an error as mp4_mux_bs_fseek
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_skip_bytes(mp4_mux_bs_t *bs, int32_t count);

// Moves to a file position, within the cached bytes if possible. Elsewhere the file must hold a
// byte there.
// returns: 0, MUX_ERR_SEEK, MUX_ERR_EOF (no byte at that position) or MUX_ERR_INVALID (no cache)
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_fseek(mp4_mux_bs_t *bs, int64_t position);

// The fixed-width readers.
// out: value: unchanged on failure
// returns: 1byte: the byte, all others 0; or an error as mp4_mux_bs_read_bytes
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_read_1byte(mp4_mux_bs_t *bs);
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_read_be16(mp4_mux_bs_t *bs, uint16_t *value);
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_read_be32(mp4_mux_bs_t *bs, uint32_t *value);
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_read_be64(mp4_mux_bs_t *bs, uint64_t *value);
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_read_le16(mp4_mux_bs_t *bs, uint16_t *value);
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_read_le32(mp4_mux_bs_t *bs, uint32_t *value);
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_read_le64(mp4_mux_bs_t *bs, uint64_t *value);

// Reads a value of mp4_mux_bs_write_value.
// in: *previous: the value before
// out: *previous: the value read
// returns: bytes read, an error as above, or MUX_ERR_INVALID for an encoding of over 64 bits
[[nodiscard]] MP4_MUX_API int32_t mp4_mux_bs_read_value(mp4_mux_bs_t *bs, uint64_t *previous);

} // extern "C"

#endif // MP4MUX_BITSTREAM_H
