#include "recovery/in_place.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

// The file callbacks have no context: the thread's file is here, and is its own handle.
static thread_local in_place_file *current;

static const mp4_mux_init_t *scratch_callbacks(void)
{
    return current->scratch;
}

static bool write_target(in_place_file *file, int64_t offset, const void *bytes, int64_t count)
{
    const recovery_target_t *const target = file->target;
    file->has_failed =
        file->has_failed || target->write_at(target->context, offset, bytes, count) < 0;
    return !file->has_failed;
}

static bool sync_target(in_place_file *file)
{
    file->has_failed = file->has_failed || file->target->sync(file->target->context) < 0;
    return !file->has_failed;
}

// Prepares the file for what is written after its frames. A head with a size, from a close that was
// cut, would make a movie box that is not complete look complete.
static bool begin_changes(in_place_file *file)
{
    file->has_changed = true;
    if (memcmp(file->found, file->opened, sizeof(file->found)) != 0 &&
        (!write_target(file, 0, file->opened, kRecorderHeadBytes) || !sync_target(file))) {
        return false;
    }
    const recovery_target_t *const target = file->target;
    file->has_failed = target->set_size(target->context, file->kept_end) < 0;
    return !file->has_failed;
}

// Keeps the part of a write that belongs to the head.
static void hold_head(in_place_file *file, const uint8_t *bytes, int64_t count)
{
    for (int64_t i = 0; i < count && file->position + i < kRecorderHeadBytes; i++) {
        const int64_t at = file->position + i;
        file->closed[at] = bytes[i];
        if (at == file->opened_bytes) {
            file->opened[at] = bytes[i];
            file->opened_bytes++;
        }
    }
}

static bool write_bytes(in_place_file *file, const uint8_t *bytes, int64_t count)
{
    hold_head(file, bytes, count);
    const int64_t skipped_bytes = std::clamp<int64_t>(file->kept_end - file->position, 0, count);
    if (skipped_bytes == count || file->is_discarded) {
        return true;
    }
    return (file->has_changed || begin_changes(file)) &&
           write_target(file, file->position + skipped_bytes, bytes + skipped_bytes,
                        count - skipped_bytes);
}

static size_t in_place_fwrite(const void *buffer, size_t size, size_t count, void *handle)
{
    if (handle != current) {
        return scratch_callbacks()->m_pfnFwrite(buffer, size, count, handle);
    }
    const int64_t bytes = static_cast<int64_t>(size * count);
    if (!write_bytes(current, static_cast<const uint8_t *>(buffer), bytes)) {
        return 0;
    }
    current->position += bytes;
    current->end = std::max(current->end, current->position);
    return count;
}

static int in_place_fseek64(void *handle, int64_t offset, int whence)
{
    const mp4_mux_init_t *const scratch = scratch_callbacks();
    if (handle != current) {
        if (scratch->m_pfnFseek64 != nullptr) {
            return scratch->m_pfnFseek64(handle, offset, whence);
        }
        return offset == static_cast<int32_t>(offset)
                   ? scratch->m_pfnFseek(handle, static_cast<int32_t>(offset), whence)
                   : -1;
    }
    const int64_t from = whence == SEEK_END ? current->end : 0;
    current->position = (whence == SEEK_CUR ? current->position : from) + offset;
    return 0;
}

static int in_place_fseek(void *handle, int32_t offset, int whence)
{
    return handle != current ? scratch_callbacks()->m_pfnFseek(handle, offset, whence)
                             : in_place_fseek64(handle, offset, whence);
}

static int64_t in_place_ftell64(void *handle)
{
    const mp4_mux_init_t *const scratch = scratch_callbacks();
    if (handle != current) {
        return scratch->m_pfnFtell64 != nullptr ? scratch->m_pfnFtell64(handle)
                                                : scratch->m_pfnFtell(handle);
    }
    return current->position;
}

static int32_t in_place_ftell(void *handle)
{
    if (handle != current) {
        return scratch_callbacks()->m_pfnFtell(handle);
    }
    return current->position <= INT32_MAX ? static_cast<int32_t>(current->position) : -1;
}

static int in_place_fclose(void *handle)
{
    return handle != current ? scratch_callbacks()->m_pfnFclose(handle) : 0;
}

mp4_mux_init_t use_in_place(in_place_file *file)
{
    current = file;
    mp4_mux_init_t init = *file->scratch;
    init.m_pfnFwrite = in_place_fwrite;
    init.m_pfnFseek = in_place_fseek;
    init.m_pfnFseek64 = in_place_fseek64;
    init.m_pfnFtell = in_place_ftell;
    init.m_pfnFtell64 = in_place_ftell64;
    init.m_pfnFclose = in_place_fclose;
    init.m_pOutput = file;
    init.m_uiOptions = MUX_OPTION_OUTPUT_IS_HANDLE;
    return init;
}

void release_in_place(void)
{
    current = nullptr;
}

bool finish_in_place(in_place_file *file)
{
    int64_t begin = 0;
    int64_t end = kRecorderHeadBytes;
    while (begin < end && file->closed[begin] == file->opened[begin]) {
        begin++;
    }
    while (begin < end && file->closed[end - 1] == file->opened[end - 1]) {
        end--;
    }
    return sync_target(file) && write_target(file, begin, file->closed + begin, end - begin) &&
           sync_target(file);
}
