#include "mp4mux/bitstream.h"

#include "mp4mux/bitstream_file.h"
#include "mp4mux/mux_context.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

// The messages of one group of writers.
struct write_messages {
    const char *open;
    const char *write;
    const char *cache;
    const char *tell;
};

} // namespace

static constexpr write_messages kBytesMessages = {
    "can't open file(bs_write_bytes)",
    "can't write file(bs_write_bytes)",
    "invalid data: cache is NULL(bs_write_bytes)",
    "can't get the position(bs_write_bytes)",
};

static constexpr write_messages kByteMessages = {
    "can't open file(bs_write_1byte)",
    "can't write file(bs_write_1byte)",
    "invalid data: cache is NULL(bs_write_1byte)",
    "can't get the position(bs_write_1byte)",
};

static constexpr write_messages kFlushMessages = {
    "can't open file(bs_write_flush)",
    "can't write file(bs_write_flush)",
    "invalid data: cache is NULL(bs_write_flush)",
    "can't get the position(bs_write_flush)",
};

int32_t bs_fail_to_close(const mp4_mux_bs_t *bs)
{
    const uintptr_t handle = reinterpret_cast<uintptr_t>(bs->m_hFile);
    return mp4_mux_set_last_error(MUX_ERR_CLOSE, static_cast<int64_t>(handle), "Error in fclose()",
                                  bs->m_pstError);
}

int32_t bs_fail_to_seek(const mp4_mux_bs_t *bs)
{
    return fail(bs->m_pstError, MUX_ERR_SEEK,
                bs->m_pstMux->m_stFile.m_pfnFseek64 != nullptr
                    ? "can't seek to SEEK_SET in fseek64(bs_fseek)"
                    : "can't seek to SEEK_SET in fseek(bs_fseek)");
}

int32_t bs_refresh(mp4_mux_bs_t *bs, const char *message)
{
    if (bs->m_hFile == nullptr) {
        return 0;
    }
    const mp4_mux_file_t &file = bs->m_pstMux->m_stFile;
    const int64_t position = file.m_pfnFtell64 != nullptr ? file.m_pfnFtell64(bs->m_hFile)
                                                          : file.m_pfnFtell(bs->m_hFile);
    if (position < 0) {
        return fail(bs->m_pstError, MUX_ERR_SEEK, message);
    }
    bs->m_llFilePos = position;
    return 0;
}

static bool can_seek_to(const mp4_mux_bs_t *bs, int64_t position)
{
    return bs->m_pstMux->m_stFile.m_pfnFseek64 != nullptr ||
           (position >= 0 && position <= INT32_MAX);
}

static int seek_file(const mp4_mux_bs_t *bs, int64_t position)
{
    const mp4_mux_file_t &file = bs->m_pstMux->m_stFile;
    if (file.m_pfnFseek64 != nullptr) {
        return file.m_pfnFseek64(bs->m_hFile, position, SEEK_SET);
    }
    return file.m_pfnFseek(bs->m_hFile, static_cast<int32_t>(position), SEEK_SET);
}

int32_t bs_seek_file(mp4_mux_bs_t *bs, int64_t position)
{
    if (!can_seek_to(bs, position)) {
        return bs_fail_to_seek(bs);
    }
    bs->m_llFilePos = position;
    bs->m_pbyBase = nullptr;
    bs->m_pbyEnd = nullptr;
    bs->m_uiFill = 0;
    bs->m_uiValid = 0;
    bs->m_bSeekDue = 0;
    return seek_file(bs, position);
}

void bs_take_back(mp4_mux_bs_t *bs, int64_t position)
{
    if (position >= bs->m_llFilePos) {
        bs->m_uiFill = static_cast<uint32_t>(position - bs->m_llFilePos);
        return;
    }
    bs->m_llFilePos = position;
    bs->m_uiFill = 0;
    bs->m_bSeekDue = 1;
}

int32_t mp4_mux_open_bitstream_from_external_memory(mp4_mux_bs_t *bs, uint8_t *cache,
                                                    int32_t cache_bytes, void *handle)
{
    bs->m_pbyCache = cache;
    bs->m_iCacheSize = cache_bytes;
    bs->m_hFile = handle;
    bs->m_bCloseFailed = 0;
    bs->m_bSeekDue = 0;
    bs->m_bTorn = 0;
    bs->m_llFilePos = 0;
    bs->m_pbyBase = nullptr;
    bs->m_pbyEnd = nullptr;
    bs->m_uiFill = 0;
    bs->m_uiValid = 0;
    return 0;
}

int32_t mp4_mux_close_bitstream_from_external_memory(mp4_mux_bs_t *bs)
{
    if (bs->m_hFile == nullptr) {
        return 0;
    }
    if (bs->m_pstMux->m_stFile.m_pfnFclose(bs->m_hFile) != 0) {
        bs->m_bCloseFailed = 1;
        return bs_fail_to_close(bs);
    }
    bs->m_hFile = nullptr;
    bs->m_bCloseFailed = 0;
    return 0;
}

int32_t mp4_mux_open_bitstream(mp4_mux_bs_t *bs, int32_t cache_bytes, void *handle)
{
    void *cache = nullptr;
    if (cache_bytes > 0) {
        cache = bs->m_pstMux->m_stMem.m_pfnMalloc(static_cast<size_t>(cache_bytes));
    }
    if (cache == nullptr) {
        return fail(bs->m_pstError, MUX_ERR_MEMORY,
                    "Insufficient memory to allocate(open_bitstream)");
    }
    return mp4_mux_open_bitstream_from_external_memory(bs, static_cast<uint8_t *>(cache),
                                                       cache_bytes, handle);
}

int32_t mp4_mux_close_bitstream(mp4_mux_bs_t *bs)
{
    if (bs->m_pbyCache != nullptr) {
        bs->m_pstMux->m_stMem.m_pfnFree(bs->m_pbyCache);
    }
    bs->m_pbyCache = nullptr;
    bs->m_iCacheSize = 0;
    bs->m_pbyBase = nullptr;
    bs->m_pbyEnd = nullptr;
    bs->m_uiFill = 0;
    bs->m_uiValid = 0;
    return mp4_mux_close_bitstream_from_external_memory(bs);
}

static size_t free_bytes(const mp4_mux_bs_t *bs)
{
    if (bs->m_pbyBase == nullptr) {
        return 0;
    }
    const size_t span = static_cast<size_t>(bs->m_pbyEnd - bs->m_pbyBase);
    return span > bs->m_uiFill ? span - bs->m_uiFill : 0;
}

// A failed write may have stored a part and moved the file position; the next bytes still belong
// to m_llFilePos.
static bool return_to_position(mp4_mux_bs_t *bs)
{
    if (bs->m_bSeekDue != 0) {
        const bool sought = can_seek_to(bs, bs->m_llFilePos) && seek_file(bs, bs->m_llFilePos) == 0;
        bs->m_bSeekDue = sought ? 0 : 1;
    }
    return bs->m_bSeekDue == 0;
}

// Writes the cached bytes to the file, which it opens by name when none is open. The cache keeps
// its content, so that after a failure another try can follow.
static int32_t flush_cache(mp4_mux_bs_t *bs, const write_messages &messages)
{
    const mp4_mux_file_t &file = bs->m_pstMux->m_stFile;
    if (bs->m_uiFill == 0) {
        return 0;
    }
    if (bs->m_hFile == nullptr && bs->m_pszFileName != nullptr) {
        bs->m_hFile = file.m_pfnFopen(bs->m_pszFileName, "wb+");
    }
    if (bs->m_hFile == nullptr) {
        return fail(bs->m_pstError, MUX_ERR_OPEN, messages.open);
    }
    if (!return_to_position(bs)) {
        return fail(bs->m_pstError, MUX_ERR_WRITE, messages.write);
    }
    const size_t written = file.m_pfnFwrite(bs->m_pbyBase, 1, bs->m_uiFill, bs->m_hFile);
    bs->m_uiValid = static_cast<uint32_t>(written);
    if (written != bs->m_uiFill) {
        bs->m_bSeekDue = 1;
        return fail(bs->m_pstError, MUX_ERR_WRITE, messages.write);
    }
    return 0;
}

// Empties the cache, whose bytes are in the file, for writing at the file's position.
static int32_t renew_span(mp4_mux_bs_t *bs, const write_messages &messages)
{
    const int64_t expected = bs_position(bs);
    const int32_t refreshed = bs_refresh(bs, messages.tell);
    if (refreshed < 0) {
        bs->m_llFilePos = expected;
    }
    if (bs->m_pbyCache == nullptr || bs->m_iCacheSize <= 0) {
        return fail(bs->m_pstError, MUX_ERR_INVALID, messages.cache);
    }
    bs->m_pbyBase = bs->m_pbyCache;
    bs->m_pbyEnd = bs->m_pbyCache + bs->m_iCacheSize;
    bs->m_uiFill = 0;
    return refreshed;
}

static int32_t make_room(mp4_mux_bs_t *bs, const write_messages &messages)
{
    const int32_t flushed = flush_cache(bs, messages);
    if (flushed < 0) { // the caller drops its bytes
        bs->m_bTorn = 1;
        return flushed;
    }
    return renew_span(bs, messages);
}

int32_t bs_lend_space(mp4_mux_bs_t *bs, int32_t max, uint8_t **space)
{
    if (free_bytes(bs) == 0) {
        const int32_t result = make_room(bs, kBytesMessages);
        if (result < 0) {
            return result;
        }
    }
    *space = bs->m_pbyBase + bs->m_uiFill;
    return static_cast<int32_t>(std::min(static_cast<size_t>(max), free_bytes(bs)));
}

int32_t mp4_mux_bs_write_bytes(mp4_mux_bs_t *bs, const void *source, int32_t count)
{
    const uint8_t *from = static_cast<const uint8_t *>(source);
    for (int32_t left_bytes = count; left_bytes > 0;) {
        uint8_t *space = nullptr;
        const int32_t part = bs_lend_space(bs, left_bytes, &space);
        if (part < 0) {
            bs->m_bTorn = 1;
            return part;
        }
        bs->m_pstMux->m_stMem.m_pfnMemcpy(space, from, static_cast<size_t>(part));
        bs->m_uiFill += static_cast<uint32_t>(part);
        from += part;
        left_bytes -= part;
    }
    return std::max(count, 0);
}

int32_t mp4_mux_bs_write_flush(mp4_mux_bs_t *bs)
{
    if (bs->m_hFile == nullptr || bs->m_uiFill == 0) {
        return 0;
    }
    const int32_t result = make_room(bs, kFlushMessages);
    return result < 0 ? result : static_cast<int32_t>(bs->m_uiValid);
}

bool bs_write_out(mp4_mux_bs_t *bs)
{
    return mp4_mux_bs_write_flush(bs) >= 0 || bs->m_uiFill == 0;
}

int32_t mp4_mux_bs_write_fseek_reset(mp4_mux_bs_t *bs, int64_t position)
{
    if (bs->m_hFile == nullptr) {
        bs->m_uiFill = 0;
        return 0;
    }
    const int32_t flushed = mp4_mux_bs_write_flush(bs);
    return flushed < 0 ? flushed : bs_seek_file(bs, position);
}

int32_t mp4_mux_bs_write_fseek(mp4_mux_bs_t *bs, int64_t position)
{
    if (bs->m_pbyBase != nullptr && position >= bs->m_llFilePos && position <= bs_position(bs)) {
        bs->m_uiFill = static_cast<uint32_t>(position - bs->m_llFilePos);
        return 0;
    }
    return mp4_mux_bs_write_fseek_reset(bs, position);
}

static int32_t put_byte(mp4_mux_bs_t *bs, uint8_t byte)
{
    int32_t result = byte;
    if (free_bytes(bs) == 0) {
        const int32_t made = make_room(bs, kByteMessages);
        if (free_bytes(bs) == 0) {
            return made;
        }
        result = made < 0 ? made : result; // there is room even if the position is unknown
    }
    bs->m_pbyBase[bs->m_uiFill++] = byte;
    return result;
}

template <byte_order order, size_t bytes>
static int32_t put_number(mp4_mux_bs_t *bs, uint64_t value)
{
    uint8_t number[bytes];
    for (size_t i = 0; i < bytes; i++) {
        const size_t place = order == byte_order::little ? i : bytes - 1 - i;
        number[i] = static_cast<uint8_t>(value >> (8 * place));
    }
    if (free_bytes(bs) >= bytes) {
        std::memcpy(bs->m_pbyBase + bs->m_uiFill, number, bytes);
        bs->m_uiFill += static_cast<uint32_t>(bytes);
        return 0;
    }
    for (const uint8_t byte : number) {
        put_byte(bs, byte);
    }
    return 0;
}

int32_t mp4_mux_bs_write_be8(mp4_mux_bs_t *bs, uint32_t value)
{
    return put_byte(bs, static_cast<uint8_t>(value));
}

int32_t mp4_mux_bs_write_1byte(mp4_mux_bs_t *bs, const uint8_t *byte)
{
    return put_byte(bs, *byte);
}

int32_t mp4_mux_bs_write_be16(mp4_mux_bs_t *bs, uint32_t value)
{
    return put_number<byte_order::big, 2>(bs, value);
}

int32_t mp4_mux_bs_write_be24(mp4_mux_bs_t *bs, uint32_t value)
{
    return put_number<byte_order::big, 3>(bs, value);
}

int32_t mp4_mux_bs_write_be32(mp4_mux_bs_t *bs, uint32_t value)
{
    return put_number<byte_order::big, 4>(bs, value);
}

int32_t mp4_mux_bs_write_be64(mp4_mux_bs_t *bs, uint64_t value)
{
    return put_number<byte_order::big, 8>(bs, value);
}

int32_t mp4_mux_bs_write_le16(mp4_mux_bs_t *bs, uint32_t value)
{
    return put_number<byte_order::little, 2>(bs, value);
}

int32_t mp4_mux_bs_write_le24(mp4_mux_bs_t *bs, uint32_t value)
{
    return put_number<byte_order::little, 3>(bs, value);
}

int32_t mp4_mux_bs_write_le32(mp4_mux_bs_t *bs, uint32_t value)
{
    return put_number<byte_order::little, 4>(bs, value);
}

int32_t mp4_mux_bs_write_value(mp4_mux_bs_t *bs, uint64_t value, uint64_t *previous)
{
    const uint64_t difference = value - *previous;
    const uint64_t sign = (difference >> 63) != 0 ? UINT64_MAX : 0;
    uint64_t zigzag = (difference << 1) ^ sign;
    int32_t bytes = 0;
    do {
        const uint8_t more = zigzag > 0x7F ? 0x80 : 0;
        const int32_t result = put_byte(bs, static_cast<uint8_t>(more | (zigzag & 0x7F)));
        if (result < 0) {
            return result;
        }
        zigzag >>= 7;
        bytes++;
    } while (zigzag != 0);
    *previous = value;
    return bytes;
}
