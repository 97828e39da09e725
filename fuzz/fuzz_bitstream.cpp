// The read operations of the muxer's bitstream on a file of any bytes, compared with a plain array,
// and while a callback fails.
//
// Input: the callbacks' width (1 byte), the size of the cache (1 byte), what fails (4 bytes), the
// file after its length, then operations: kind and a number.
#include "fuzz/input.h"
#include "mp4mux/bitstream.h"
#include "tests/support/mux_callbacks.h"

#include <cstring>

using mux_test::world;

struct checked_reader {
    mp4_mux_bs_t bs = {};
    Bytes file;
    size_t at = 0;          // the next byte in the array
    bool is_checked = true; // no callback fails

    void promise(bool holds, const char *what) const
    {
        require(holds || !is_checked, what);
    }
    bool has(size_t count) const
    {
        return at <= file.size() && count <= file.size() - at;
    }
    // The bytes that were read or shown are those of the array.
    void compare(const uint8_t *bytes, size_t count) const
    {
        promise(!has(count) || std::equal(bytes, bytes + count, file.data() + at), "the bytes");
    }
    // A read beyond the end leaves the position at the end.
    void finish_read(bool fits, int32_t result, size_t count)
    {
        promise(fits ? result >= 0 : result == MUX_ERR_EOF, "a read or the end");
        at = fits ? at + count : std::max(at, file.size());
    }
};

template <class T>
static void read_number(checked_reader &reader, int32_t (*function)(mp4_mux_bs_t *, T *),
                        bool is_little)
{
    T value = 0;
    const int32_t result = function(&reader.bs, &value);
    uint8_t bytes[sizeof(T)];
    for (size_t i = 0; i < sizeof(T); i++) {
        bytes[is_little ? i : sizeof(T) - 1 - i] = static_cast<uint8_t>(value >> (8 * i));
    }
    reader.compare(bytes, sizeof(T));
    reader.finish_read(reader.has(sizeof(T)), result, sizeof(T));
}

static void read_value(checked_reader &reader)
{
    uint64_t zigzag = 0;
    size_t size = 0;
    bool is_over = false; // the number has ended and fits 64 bits
    while (!is_over && size < 10 && reader.has(size + 1)) {
        const uint64_t byte = reader.file[reader.at + size];
        zigzag |= (byte & 0x7F) << (7 * size++);
        is_over = byte < (size == 10 ? 2 : 0x80);
    }
    uint64_t value = 1000;
    const int32_t result = mp4_mux_bs_read_value(&reader.bs, &value);
    if (size == 10 && !is_over) {
        reader.promise(result == MUX_ERR_INVALID, "a value of over 64 bits");
        reader.at += size;
        return;
    }
    const uint64_t difference = zigzag >> 1 ^ (0 - (zigzag & 1));
    reader.promise(value == (is_over ? 1000 + difference : 1000), "the value");
    reader.finish_read(is_over, result, size);
}

static void move(checked_reader &reader, size_t to, int32_t result)
{
    const int32_t expected = to < reader.file.size() ? 0 : MUX_ERR_EOF;
    reader.promise(result == expected || to == reader.at || to == reader.file.size(), "a move");
    reader.at = to;
}

static void read_block(checked_reader &reader, uint32_t kind, uint32_t number)
{
    uint8_t block[256] = {};
    const int32_t count = static_cast<int32_t>(number);
    const bool fits = reader.has(number) || number == 0;
    if (kind == 0) {
        const int32_t result = mp4_mux_bs_read_bytes(&reader.bs, block, count);
        reader.compare(block, number);
        reader.finish_read(fits, result, number);
    } else if (kind == 1) {
        const int32_t result = mp4_mux_bs_show_bytes(&reader.bs, block, count);
        const int32_t failure = count > reader.bs.m_iCacheSize ? MUX_ERR_INVALID : MUX_ERR_EOF;
        reader.promise(result == (fits && failure == MUX_ERR_EOF ? count : failure), "bytes shown");
        reader.compare(block, result > 0 ? number : 0);
    } else if (kind == 2) {
        const int32_t result = mp4_mux_bs_ready_cache(&reader.bs);
        reader.promise(reader.has(1) ? result > 0 : result == MUX_ERR_EOF, "a byte ready");
    } else if (kind == 3) {
        move(reader, reader.at + number, mp4_mux_bs_skip_bytes(&reader.bs, count));
    } else {
        move(reader, number, mp4_mux_bs_fseek(&reader.bs, int64_t{number}));
    }
}

static void read_one(checked_reader &reader, uint32_t kind, uint32_t number)
{
    switch (kind) {
    case 0:
        return read_number(reader, mp4_mux_bs_read_be16, false);
    case 1:
        return read_number(reader, mp4_mux_bs_read_be32, false);
    case 2:
        return read_number(reader, mp4_mux_bs_read_be64, false);
    case 3:
        return read_number(reader, mp4_mux_bs_read_le16, true);
    case 4:
        return read_number(reader, mp4_mux_bs_read_le32, true);
    case 5:
        return read_number(reader, mp4_mux_bs_read_le64, true);
    case 6:
        return reader.finish_read(reader.has(1), mp4_mux_bs_read_1byte(&reader.bs), 1);
    case 7:
        return read_value(reader);
    default:
        return read_block(reader, kind - 8, number);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input input = {{data, size}};
    mux_test::reset_world();
    mp4_mux_t mux = mux_test::make_context(input.u8() % 2 != 0);
    Bytes cache(1 + input.u8() % 40);
    const uint32_t kind = input.u8();
    const uint32_t flags = input.u8();
    world.fail = {.kind = static_cast<mux_test::call>(kind % 9),
                  .at = input.u16(),
                  .from_then_on = (flags & 1) != 0,
                  .partial = (flags & 2) != 0};
    checked_reader reader = {.bs = {.m_pstMux = &mux, .m_pstError = &mux.m_stLastError},
                             .file = input.bytes(input.u8()),
                             .is_checked = world.fail.at == 0};
    mp4_mux_open_bitstream_from_external_memory(&reader.bs, cache.data(),
                                                static_cast<int32_t>(cache.size()),
                                                mux_test::open_file("out.mp4"));
    world.files["out.mp4"].bytes = reader.file;
    while (!input.left.empty()) {
        const uint32_t operation = input.u8() % 13;
        read_one(reader, operation, input.u8());
    }
    world.fail = {};
    require(mp4_mux_close_bitstream_from_external_memory(&reader.bs) == 0, "the file is closed");
    require(mux_test::leftovers().empty(), mux_test::leftovers());
    return 0;
}
