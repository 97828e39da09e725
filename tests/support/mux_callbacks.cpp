#include "tests/support/mux_callbacks.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mux_test {

world_state world;

static bool check(bool allowed, const std::string &what)
{
    world.misuse = world.misuse.empty() && !allowed ? what : world.misuse;
    return allowed;
}

void reset_world()
{
    std::for_each(world.memory.begin(), world.memory.end(), std::free);
    world = {};
}

std::string leftovers()
{
    for (const auto &[name, file] : world.files) {
        check(!file.open && name == "out.mp4", "the file " + name);
    }
    check(world.memory.empty(), "allocated memory");
    return world.misuse;
}

static bool is_failing(const failure &f, call kind, uint32_t number)
{
    return f.at != 0 && f.kind == kind && (number == f.at || (number > f.at && f.from_then_on));
}

static bool fails(call kind)
{
    const uint32_t number = ++world.calls[kind];
    return is_failing(world.fail, kind, number) || is_failing(world.fail_too, kind, number);
}

static void count_free(void *block)
{
    check(block == nullptr || world.memory.erase(block) == 1, "free of a foreign block");
    std::free(block);
}

static void *count_malloc(size_t size)
{
    if (fails(call::malloc)) {
        return nullptr;
    }
    void *block = std::memset(std::malloc(size), 0xA5, size);
    world.memory.insert(block);
    return block;
}

static void *count_realloc(void *block, size_t size)
{
    if (fails(call::realloc)) {
        return nullptr;
    }
    check(block == nullptr || world.memory.erase(block) == 1, "realloc of a foreign block");
    return *world.memory.insert(std::realloc(block, size)).first;
}

static void *check_memcpy(void *destination, const void *source, size_t count)
{
    const uint8_t *from = static_cast<const uint8_t *>(source);
    const uint8_t *to = static_cast<const uint8_t *>(destination);
    check(to >= from + count || from >= to + count, "memcpy of overlapping memory");
    return std::memcpy(destination, source, count);
}

static memory_file &use(void *handle)
{
    static memory_file dummy;
    for (auto &[name, file] : world.files) {
        if (&file == handle && file.open) {
            return file;
        }
    }
    check(false, "use of a closed handle");
    return dummy = {};
}

void *open_file(const std::string &name)
{
    return &(world.files[name] = {});
}

static void *memory_fopen(const char *name, const char *mode)
{
    check(std::strcmp(mode, "wb+") == 0, "a mode other than wb+");
    if (fails(call::fopen)) {
        return nullptr;
    }
    world.opened.emplace_back(name);
    return open_file(name);
}

static int memory_fclose(void *handle)
{
    use(handle).open = false; // as in C, a close that fails closes too
    return fails(call::fclose) ? -1 : 0;
}

static size_t memory_fread(void *buffer, size_t, size_t count, void *handle)
{
    memory_file &file = use(handle);
    const uint64_t at = std::min<uint64_t>(file.position, file.bytes.size());
    const size_t rest = file.bytes.size() - static_cast<size_t>(at);
    if (fails(call::fread)) {
        count = world.fail.partial ? count / 2 : 0;
    }
    const size_t got = std::min(count, rest);
    std::copy_n(file.bytes.data() + at, got, static_cast<uint8_t *>(buffer));
    file.position += got;
    return got;
}

static size_t memory_fwrite(const void *buffer, size_t, size_t count, void *handle)
{
    memory_file &file = use(handle);
    if (fails(call::fwrite)) {
        count = world.fail.partial ? count / 2 : 0;
    }
    const uint64_t hole = file.position < world.hole_end ? 0 : world.hole_end - world.hole_begin;
    const size_t place = static_cast<size_t>(file.position - hole);
    file.bytes.resize(std::max(file.bytes.size(), place + count));
    std::copy_n(static_cast<const uint8_t *>(buffer), count, file.bytes.data() + place);
    file.position += count;
    file.size = std::max(file.size, file.position);
    return count;
}

static int memory_fseek64(void *handle, int64_t offset, int whence)
{
    memory_file &file = use(handle);
    if (fails(call::fseek) || offset < 0) {
        return -1;
    }
    file.position = static_cast<uint64_t>(offset) + (whence == SEEK_END ? file.size : 0);
    return 0;
}

static int memory_fseek(void *handle, int32_t offset, int whence)
{
    return memory_fseek64(handle, offset, whence);
}

static int64_t memory_ftell64(void *handle)
{
    return fails(call::ftell) ? -1 : static_cast<int64_t>(use(handle).position);
}

static int32_t memory_ftell(void *handle)
{
    const int64_t position = memory_ftell64(handle);
    return position > INT32_MAX ? -1 : static_cast<int32_t>(position);
}

static int memory_remove(const char *name)
{
    world.removed.emplace_back(name);
    const bool removed = world.files.erase(name) == 1;
    return removed && !fails(call::remove) ? 0 : -1;
}

int32_t append_whole_file(void *destination, void *source, int32_t)
{
    memory_file &to = use(destination);
    memory_file &from = use(source);
    if (fails(call::append) || to.position > to.size) {
        return -1;
    }
    const uint64_t gap = to.size - to.position;
    to.position = to.size;
    if (memory_fwrite(from.bytes.data(), 1, from.bytes.size(), &to) != from.bytes.size()) {
        return -1;
    }
    from.open = false;
    return static_cast<int32_t>(gap);
}

// clang-format off
mp4_mux_init_t make_callbacks(bool with_64bit)
{
    return {.m_pfnMalloc = count_malloc, .m_pfnFree = count_free,
            .m_pfnMemcpy = check_memcpy, .m_pfnMemset = std::memset,
            .m_pfnRealloc = count_realloc, .m_pfnFopen = memory_fopen, .m_pfnFread = memory_fread,
            .m_pfnFseek = memory_fseek, .m_pfnFtell = memory_ftell, .m_pfnFclose = memory_fclose,
            .m_pfnFwrite = memory_fwrite, .m_pfnRemove = memory_remove,
            .m_pfnFseek64 = with_64bit ? memory_fseek64 : nullptr,
            .m_pfnFtell64 = with_64bit ? memory_ftell64 : nullptr};
}
// clang-format on

mp4_mux_t make_context(bool with_64bit)
{
    const mp4_mux_init_t c = make_callbacks(with_64bit);
    mp4_mux_t mux = {};
    mux.m_stMem = {c.m_pfnMalloc, c.m_pfnFree,   nullptr,       c.m_pfnMemcpy,
                   nullptr,       c.m_pfnMemset, c.m_pfnRealloc};
    mux.m_stFile = {c.m_pfnFopen,  c.m_pfnFread,   c.m_pfnFseek,  c.m_pfnFtell,
                    c.m_pfnFclose, nullptr,        nullptr,       c.m_pfnFwrite,
                    c.m_pfnRemove, c.m_pfnFseek64, c.m_pfnFtell64};
    return mux;
}

} // namespace mux_test
