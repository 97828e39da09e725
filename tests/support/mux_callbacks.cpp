#include "tests/support/mux_callbacks.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mux_test {

world &the_world()
{
    static world instance;
    return instance;
}

void reset_world()
{
    for (void *block : the_world().memory) {
        std::free(block);
    }
    the_world() = world{};
}

uint32_t calls_of(call kind)
{
    return the_world().calls[kind];
}

static void note_misuse(const std::string &what)
{
    if (the_world().misuse.empty()) {
        the_world().misuse = what;
    }
}

std::string leftovers()
{
    const world &w = the_world();
    for (const auto &handle : w.handles) {
        if (handle->open) {
            note_misuse("an open handle");
        }
    }
    for (const auto &file : w.files) {
        if (file.first != "out.mp4") {
            note_misuse("the file " + file.first);
        }
    }
    if (!w.memory.empty()) {
        note_misuse("allocated memory");
    }
    return w.misuse;
}

static bool fails(call kind)
{
    world &w = the_world();
    const uint32_t number = ++w.calls[kind];
    return w.fail.at != 0 && w.fail.kind == kind &&
           (number == w.fail.at || (number > w.fail.at && w.fail.from_then_on));
}

static void forget(void *block)
{
    if (block != nullptr && the_world().memory.erase(block) == 0) {
        note_misuse("free or realloc of a foreign block");
    }
}

static void *count_malloc(size_t size)
{
    if (fails(call::malloc)) {
        return nullptr;
    }
    void *block = std::malloc(size);
    std::memset(block, 0xA5, size);
    the_world().memory.insert(block);
    return block;
}

static void count_free(void *block)
{
    forget(block);
    std::free(block);
}

static void *count_realloc(void *block, size_t size)
{
    if (fails(call::realloc)) {
        return nullptr;
    }
    forget(block);
    void *moved = std::realloc(block, size);
    the_world().memory.insert(moved);
    return moved;
}

static void *copy_unless_ghost(void *destination, const void *source, size_t count)
{
    const world &w = the_world();
    const uint8_t *from = static_cast<const uint8_t *>(source);
    const uint8_t *to = static_cast<const uint8_t *>(destination);
    if (w.ghost != nullptr && from >= w.ghost && from < w.ghost + w.ghost_bytes) {
        return destination;
    }
    if (to < from + count && from < to + count) {
        note_misuse("memcpy of overlapping memory");
    }
    return std::memcpy(destination, source, count);
}

static file_handle *use(void *handle)
{
    file_handle *used = static_cast<file_handle *>(handle);
    if (used == nullptr || !used->open) {
        note_misuse("use of a closed handle");
        static file_handle dummy;
        dummy.file = std::make_shared<memory_file>();
        return &dummy;
    }
    return used;
}

void *open_file(const std::string &name)
{
    world &w = the_world();
    auto handle = std::make_unique<file_handle>();
    handle->file = w.files[name] = std::make_shared<memory_file>();
    w.handles.push_back(std::move(handle));
    return w.handles.back().get();
}

static void *memory_fopen(const char *name, const char *mode)
{
    if (std::strcmp(mode, "wb+") != 0) {
        note_misuse("a mode other than wb+");
    }
    if (fails(call::fopen)) {
        return nullptr;
    }
    the_world().opened.emplace_back(name);
    return open_file(name);
}

static int memory_fclose(void *handle)
{
    const bool failed = fails(call::fclose);
    use(handle)->open = false; // as in C, a close that fails closes all the same
    return failed ? -1 : 0;
}

static size_t memory_fread(void *buffer, size_t, size_t count, void *handle)
{
    file_handle *from = use(handle);
    const std::vector<uint8_t> &bytes = from->file->bytes;
    const size_t at = static_cast<size_t>(std::min<uint64_t>(from->position, bytes.size()));
    const size_t got = fails(call::fread) ? 0 : std::min(count, bytes.size() - at);
    std::copy_n(bytes.data() + at, got, static_cast<uint8_t *>(buffer));
    from->position += got;
    return got;
}

static size_t memory_fwrite(const void *buffer, size_t, size_t count, void *handle)
{
    const world &w = the_world();
    file_handle *to = use(handle);
    memory_file &file = *to->file;
    if (fails(call::fwrite)) {
        count = w.fail.partial ? count / 2 : 0;
    }
    if (to->position < w.hole_begin || to->position + count > w.hole_end) {
        for (size_t i = 0; i < count; i++) {
            const uint64_t at = to->position + i;
            if (at < w.hole_begin || at >= w.hole_end) {
                const size_t place =
                    static_cast<size_t>(at < w.hole_end ? at : at - (w.hole_end - w.hole_begin));
                file.bytes.resize(std::max(file.bytes.size(), place + 1));
                file.bytes[place] = static_cast<const uint8_t *>(buffer)[i];
            }
        }
    }
    to->position += count;
    file.size = std::max(file.size, to->position);
    return count;
}

static int memory_fseek64(void *handle, int64_t offset, int whence)
{
    file_handle *moved = use(handle);
    if (fails(call::fseek) || offset < 0) {
        return -1;
    }
    moved->position = static_cast<uint64_t>(offset) + (whence == SEEK_END ? moved->file->size : 0);
    return 0;
}

static int memory_fseek(void *handle, int32_t offset, int whence)
{
    return memory_fseek64(handle, offset, whence);
}

static int64_t memory_ftell64(void *handle)
{
    const file_handle *asked = use(handle);
    return fails(call::ftell) ? -1 : static_cast<int64_t>(asked->position);
}

static int32_t memory_ftell(void *handle)
{
    const int64_t position = memory_ftell64(handle);
    return position > INT32_MAX ? -1 : static_cast<int32_t>(position);
}

static int memory_remove(const char *name)
{
    the_world().removed.emplace_back(name);
    return the_world().files.erase(name) == 1 ? 0 : -1;
}

int32_t append_whole_file(void *destination, void *source, int32_t)
{
    file_handle *to = use(destination);
    file_handle *from = use(source);
    if (fails(call::append) || to->position > to->file->size) {
        return -1;
    }
    const uint64_t gap = to->file->size - to->position;
    const std::vector<uint8_t> bytes = from->file->bytes;
    to->position = to->file->size;
    if (memory_fwrite(bytes.data(), 1, bytes.size(), destination) != bytes.size()) {
        return -1;
    }
    from->open = false;
    return static_cast<int32_t>(gap);
}

mp4_mux_init_t make_callbacks(bool with_64bit)
{
    mp4_mux_init_t init = {};
    init.m_pfnMalloc = count_malloc;
    init.m_pfnFree = count_free;
    init.m_pfnMemcpy = copy_unless_ghost;
    init.m_pfnMemset = std::memset;
    init.m_pfnRealloc = count_realloc;
    init.m_pfnFopen = memory_fopen;
    init.m_pfnFread = memory_fread;
    init.m_pfnFseek = memory_fseek;
    init.m_pfnFtell = memory_ftell;
    init.m_pfnFclose = memory_fclose;
    init.m_pfnFwrite = memory_fwrite;
    init.m_pfnRemove = memory_remove;
    init.m_pfnFseek64 = with_64bit ? memory_fseek64 : nullptr;
    init.m_pfnFtell64 = with_64bit ? memory_ftell64 : nullptr;
    return init;
}

std::vector<uint8_t> read_file(const std::string &name)
{
    const auto found = the_world().files.find(name);
    return found == the_world().files.end() ? std::vector<uint8_t>{} : found->second->bytes;
}

} // namespace mux_test
