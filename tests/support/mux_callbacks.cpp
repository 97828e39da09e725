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
    return the_world().calls[static_cast<size_t>(kind)];
}

size_t open_handles()
{
    const auto &handles = the_world().handles;
    return static_cast<size_t>(std::count_if(handles.begin(), handles.end(),
                                             [](const auto &handle) { return handle->open; }));
}

static void note_misuse(const char *what)
{
    if (the_world().misuse.empty()) {
        the_world().misuse = what;
    }
}

static bool fails(call kind)
{
    world &w = the_world();
    const uint32_t number = ++w.calls[static_cast<size_t>(kind)];
    return w.fail.at != 0 && w.fail.kind == kind &&
           (number == w.fail.at || (number > w.fail.at && w.fail.from_then_on));
}

static void *count_malloc(size_t size)
{
    if (fails(call::malloc_fn)) {
        return nullptr;
    }
    void *block = std::malloc(size);
    std::memset(block, 0xA5, size);
    the_world().memory.insert(block);
    return block;
}

static void count_free(void *block)
{
    if (the_world().memory.erase(block) == 0) {
        note_misuse("free of a foreign block");
        return;
    }
    std::free(block);
}

static void *count_realloc(void *block, size_t size)
{
    if (fails(call::realloc_fn)) {
        return nullptr;
    }
    if (block != nullptr && the_world().memory.erase(block) == 0) {
        note_misuse("realloc of a foreign block");
        return nullptr;
    }
    void *moved = std::realloc(block, size);
    the_world().memory.insert(moved);
    return moved;
}

static void *copy_unless_ghost(void *destination, const void *source, size_t count)
{
    const world &w = the_world();
    const uint8_t *from = static_cast<const uint8_t *>(source);
    if (w.ghost != nullptr && from >= w.ghost && from < w.ghost + w.ghost_bytes) {
        return destination;
    }
    const uint8_t *to = static_cast<const uint8_t *>(destination);
    if ((to <= from && from < to + count) || (from <= to && to < from + count)) {
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
    handle->file = std::make_shared<memory_file>();
    w.files[name] = handle->file;
    w.handles.push_back(std::move(handle));
    return w.handles.back().get();
}

static void *memory_fopen(const char *name, const char *mode)
{
    if (std::strcmp(mode, "wb+") != 0) {
        note_misuse("a mode other than wb+");
    }
    if (fails(call::fopen_fn)) {
        return nullptr;
    }
    the_world().opened.emplace_back(name);
    return open_file(name);
}

static int memory_fclose(void *handle)
{
    const bool failed = fails(call::fclose_fn);
    use(handle)->open = false; // as in C, a close that fails closes all the same
    return failed ? -1 : 0;
}

static size_t memory_fread(void *buffer, size_t, size_t count, void *handle)
{
    file_handle *from = use(handle);
    if (fails(call::fread_fn)) {
        return 0;
    }
    const uint64_t left = from->file->size - std::min(from->position, from->file->size);
    const size_t got = static_cast<size_t>(std::min<uint64_t>(count, left));
    for (size_t i = 0; i < got; i++, from->position++) {
        const auto page = from->file->pages.find(from->position / 4096);
        static_cast<uint8_t *>(buffer)[i] =
            page == from->file->pages.end() ? 0 : page->second[from->position % 4096];
    }
    return got;
}

static size_t memory_fwrite(const void *buffer, size_t, size_t count, void *handle)
{
    const world &w = the_world();
    file_handle *to = use(handle);
    if (fails(call::fwrite_fn)) {
        if (!w.fail.partial) {
            return 0;
        }
        count /= 2;
    }
    const uint8_t *from = static_cast<const uint8_t *>(buffer);
    if (to->position >= w.hole_begin && to->position + count <= w.hole_end) {
        to->position += count;
    } else {
        for (size_t i = 0; i < count; i++, to->position++) {
            if (to->position < w.hole_begin || to->position >= w.hole_end) {
                to->file->pages[to->position / 4096][to->position % 4096] = from[i];
            }
        }
    }
    to->file->size = std::max(to->file->size, to->position);
    return count;
}

static int memory_fseek64(void *handle, int64_t offset, int whence)
{
    file_handle *moved = use(handle);
    if (fails(call::fseek_fn) || offset < 0) {
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
    return fails(call::ftell_fn) ? -1 : static_cast<int64_t>(asked->position);
}

static int32_t memory_ftell(void *handle)
{
    const int64_t position = memory_ftell64(handle);
    if (position > INT32_MAX) {
        the_world().files_over_32bit++;
        return -1;
    }
    return static_cast<int32_t>(position);
}

static int memory_remove(const char *name)
{
    world &w = the_world();
    w.removed.emplace_back(name);
    return w.files.erase(name) == 1 ? 0 : -1;
}

int32_t append_whole_file(void *destination, void *source, int32_t reserved)
{
    file_handle *to = use(destination);
    file_handle *from = use(source);
    if (reserved != 0) {
        note_misuse("a reserved argument that is not 0");
    }
    if (fails(call::append_fn) || to->position > to->file->size) {
        return -1;
    }
    const uint64_t gap = to->file->size - to->position;
    std::vector<uint8_t> bytes(from->file->size);
    from->position = 0;
    memory_fread(bytes.data(), 1, bytes.size(), source);
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

std::vector<uint8_t> read_file(const std::string &name, uint64_t from)
{
    const auto found = the_world().files.find(name);
    if (found == the_world().files.end()) {
        return {};
    }
    const memory_file &file = *found->second;
    std::vector<uint8_t> bytes(static_cast<size_t>(file.size - std::min(from, file.size)));
    for (size_t i = 0; i < bytes.size(); i++) {
        const auto page = file.pages.find((from + i) / 4096);
        bytes[i] = page == file.pages.end() ? 0 : page->second[(from + i) % 4096];
    }
    return bytes;
}

} // namespace mux_test
