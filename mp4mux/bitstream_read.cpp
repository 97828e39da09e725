#include "mp4mux/bitstream.h"
#include "mp4mux/bitstream_file.h"
#include "mp4mux/mux_context.h"

#include <algorithm>

namespace {

// The messages of one group of readers.
struct read_messages {
    const char *end;
    const char *cache;
    const char *tell;
};

} // namespace

static constexpr read_messages kBytesMessages = {
    "the end of the file(bs_read_bytes)",
    "invalid data: cache is NULL(bs_read_bytes)",
    "can't get the position(bs_read_bytes)",
};

static constexpr read_messages kByteMessages = {
    "the end of the file(bs_read_1byte)",
    "invalid data: cache is NULL(bs_read_1byte)",
    "can't get the position(bs_read_1byte)",
};

static constexpr read_messages kReadyMessages = {
    "the end of the file(bs_ready_cache)",
    "invalid data: cache is NULL(bs_ready_cache)",
    "can't get the position(bs_ready_cache)",
};

static constexpr read_messages kShowMessages = {
    "the end of the file(bs_show_bytes)",
    "invalid data: cache is NULL(bs_show_bytes)",
    "can't get the position(bs_show_bytes)",
};

static constexpr read_messages kSeekMessages = {
    "the end of the file(bs_fseek)",
    "invalid data: cache is NULL(bs_fseek)",
    "can't get the position(bs_fseek)",
};

static size_t unread_bytes(const mp4_mux_bs_t *bs)
{
    if (bs->m_pbyBase == nullptr) {
        return 0;
    }
    const size_t span = static_cast<size_t>(bs->m_pbyEnd - bs->m_pbyBase);
    const size_t valid = std::min<size_t>(bs->m_uiValid, span);
    return valid > bs->m_uiFill ? valid - bs->m_uiFill : 0;
}

// Fills the cache from the current position of the file.
static int32_t refill(mp4_mux_bs_t *bs, const read_messages &messages)
{
    const int32_t refreshed = bs_refresh(bs, messages.tell);
    if (refreshed < 0) {
        return refreshed;
    }
    if (bs->m_pbyCache == nullptr || bs->m_iCacheSize <= 0) {
        return fail(bs->m_pstError, MUX_ERR_INVALID, messages.cache);
    }
    if (bs->m_hFile == nullptr) {
        return fail(bs->m_pstError, MUX_ERR_EOF, messages.end);
    }
    const size_t got = bs->m_pstMux->m_stFile.m_pfnFread(
        bs->m_pbyCache, 1, static_cast<size_t>(bs->m_iCacheSize), bs->m_hFile);
    if (got == 0) {
        bs->m_uiFill = 0; // the bytes read before are before m_llFilePos now
        bs->m_uiValid = 0;
        return fail(bs->m_pstError, MUX_ERR_EOF, messages.end);
    }
    bs->m_uiValid = static_cast<uint32_t>(got);
    bs->m_pbyBase = bs->m_pbyCache;
    bs->m_pbyEnd = bs->m_pbyCache + got;
    bs->m_uiFill = 0;
    return 0;
}

int32_t mp4_mux_bs_fseek_reset(mp4_mux_bs_t *bs, int64_t position)
{
    if (bs->m_hFile == nullptr) {
        bs->m_uiFill = 0;
        return 0;
    }
    return bs_seek_file(bs, position);
}

// As bs_borrow_bytes, with the messages of the calling reader.
static int32_t borrow(mp4_mux_bs_t *bs, size_t max, const uint8_t **bytes,
                      const read_messages &messages)
{
    if (unread_bytes(bs) == 0) {
        const int32_t result = refill(bs, messages);
        if (result < 0) {
            return result;
        }
    }
    *bytes = bs->m_pbyBase + bs->m_uiFill;
    return static_cast<int32_t>(std::min(max, unread_bytes(bs)));
}

int32_t bs_borrow_bytes(mp4_mux_bs_t *bs, int32_t max, const uint8_t **bytes)
{
    return borrow(bs, static_cast<size_t>(max), bytes, kBytesMessages);
}

static int32_t read_bytes(mp4_mux_bs_t *bs, uint8_t *to, int32_t count,
                          const read_messages &messages)
{
    size_t left_bytes = count > 0 ? static_cast<size_t>(count) : 0;
    while (left_bytes > 0) {
        const uint8_t *from = nullptr;
        const int32_t part = borrow(bs, left_bytes, &from, messages);
        if (part < 0) {
            return part;
        }
        bs->m_pstMux->m_stMem.m_pfnMemcpy(to, from, static_cast<size_t>(part));
        bs->m_uiFill += static_cast<uint32_t>(part);
        to += part;
        left_bytes -= static_cast<size_t>(part);
    }
    return std::max(count, 0);
}

int32_t mp4_mux_bs_read_bytes(mp4_mux_bs_t *bs, void *destination, int32_t count)
{
    return read_bytes(bs, static_cast<uint8_t *>(destination), count, kBytesMessages);
}

int32_t mp4_mux_bs_ready_cache(mp4_mux_bs_t *bs)
{
    if (unread_bytes(bs) == 0) {
        const int32_t result = refill(bs, kReadyMessages);
        if (result < 0) {
            return result;
        }
    }
    return static_cast<int32_t>(unread_bytes(bs));
}

// Reads the cache again from the next unread byte.
static int32_t reload_from_position(mp4_mux_bs_t *bs)
{
    const int64_t position = bs_position(bs);
    if (bs->m_hFile != nullptr && mp4_mux_bs_fseek_reset(bs, position) != 0) {
        return fail(bs->m_pstError, MUX_ERR_SEEK, "can't seek(bs_show_bytes)");
    }
    return refill(bs, kShowMessages);
}

int32_t mp4_mux_bs_show_bytes(mp4_mux_bs_t *bs, void *destination, int32_t count)
{
    if (count <= 0) {
        return 0;
    }
    if (bs->m_pbyCache == nullptr) {
        return fail(bs->m_pstError, MUX_ERR_INVALID, kShowMessages.cache);
    }
    if (count > bs->m_iCacheSize) {
        return fail(bs->m_pstError, MUX_ERR_INVALID,
                    "invalid data: more than the cache(bs_show_bytes)");
    }
    if (unread_bytes(bs) < static_cast<size_t>(count)) {
        const int32_t result = reload_from_position(bs);
        if (result < 0) {
            return result;
        }
    }
    if (unread_bytes(bs) < static_cast<size_t>(count)) {
        return fail(bs->m_pstError, MUX_ERR_EOF, kShowMessages.end);
    }
    bs->m_pstMux->m_stMem.m_pfnMemcpy(destination, bs->m_pbyBase + bs->m_uiFill,
                                      static_cast<size_t>(count));
    return count;
}

int32_t mp4_mux_bs_skip_bytes(mp4_mux_bs_t *bs, int32_t count)
{
    return count <= 0 ? 0 : mp4_mux_bs_fseek(bs, bs_position(bs) + count);
}

int32_t mp4_mux_bs_fseek(mp4_mux_bs_t *bs, int64_t position)
{
    const int64_t read_end = bs_position(bs) + static_cast<int64_t>(unread_bytes(bs));
    if (bs->m_pbyBase != nullptr && position >= bs->m_llFilePos && position <= read_end) {
        bs->m_uiFill = static_cast<uint32_t>(position - bs->m_llFilePos);
        return 0;
    }
    if (bs->m_hFile == nullptr) {
        return fail(bs->m_pstError, MUX_ERR_EOF, kSeekMessages.end);
    }
    if (mp4_mux_bs_fseek_reset(bs, position) != 0) {
        return bs_fail_to_seek(bs);
    }
    return refill(bs, kSeekMessages);
}

int32_t mp4_mux_bs_read_1byte(mp4_mux_bs_t *bs)
{
    uint8_t byte = 0;
    const int32_t result = read_bytes(bs, &byte, 1, kByteMessages);
    return result < 0 ? result : byte;
}

template <class Number>
static int32_t read_number(mp4_mux_bs_t *bs, byte_order order, Number *value)
{
    uint64_t read = 0;
    for (size_t i = 0; i < sizeof(Number); i++) {
        const int32_t byte = mp4_mux_bs_read_1byte(bs);
        if (byte < 0) {
            return byte;
        }
        const size_t place = order == byte_order::little ? i : sizeof(Number) - 1 - i;
        read |= static_cast<uint64_t>(byte) << (8 * place);
    }
    *value = static_cast<Number>(read);
    return 0;
}

int32_t mp4_mux_bs_read_be16(mp4_mux_bs_t *bs, uint16_t *value)
{
    return read_number(bs, byte_order::big, value);
}

int32_t mp4_mux_bs_read_be32(mp4_mux_bs_t *bs, uint32_t *value)
{
    return read_number(bs, byte_order::big, value);
}

int32_t mp4_mux_bs_read_be64(mp4_mux_bs_t *bs, uint64_t *value)
{
    return read_number(bs, byte_order::big, value);
}

int32_t mp4_mux_bs_read_le16(mp4_mux_bs_t *bs, uint16_t *value)
{
    return read_number(bs, byte_order::little, value);
}

int32_t mp4_mux_bs_read_le32(mp4_mux_bs_t *bs, uint32_t *value)
{
    return read_number(bs, byte_order::little, value);
}

int32_t mp4_mux_bs_read_le64(mp4_mux_bs_t *bs, uint64_t *value)
{
    return read_number(bs, byte_order::little, value);
}

int32_t mp4_mux_bs_read_value(mp4_mux_bs_t *bs, uint64_t *previous)
{
    uint64_t zigzag = 0;
    for (int32_t bytes = 1; bytes <= 10; bytes++) {
        const int32_t byte = mp4_mux_bs_read_1byte(bs);
        if (byte < 0) {
            return byte;
        }
        const uint64_t group = static_cast<uint64_t>(byte) & 0x7F;
        if (bytes == 10 && byte > 1) { // nine groups of 7 bits leave one bit
            break;
        }
        zigzag |= group << (7 * (bytes - 1));
        if ((byte & 0x80) == 0) {
            const uint64_t sign = (zigzag & 1) != 0 ? UINT64_MAX : 0;
            *previous += (zigzag >> 1) ^ sign;
            return bytes;
        }
    }
    return fail(bs->m_pstError, MUX_ERR_INVALID, "invalid data: value is too long(bs_read_value)");
}
