#include "fuzz/recording_environment.h"

#include "fuzz/input.h"
#include "mp4mux/mp4_mux.h"

#include <array>
#include <cstring>
#include <mutex>
#include <sanitizer/asan_interface.h> // its macros do nothing in a build without it
#include <sys/mman.h>
#include <unistd.h>

recording_environment environment;

// The large blocks of a recording are kept for the next one: fresh memory from the system costs
// more than all the rest. While a block is in use, a small allocation represents it, so that it is
// counted and can be refused.
struct large_block {
    void *memory;
    size_t bytes;
    void *stand_in; // null: free
};
static std::array<large_block, 8> large_blocks;
static std::mutex large_blocks_lock;

extern "C" void *__real_QVR_malloc(size_t bytes);
extern "C" void __real_QVR_free(void *memory);

extern "C" void *__wrap_QVR_malloc(size_t bytes)
{
    if (bytes < 1 << 20) {
        return __real_QVR_malloc(bytes);
    }
    void *const stand_in = __real_QVR_malloc(1);
    const std::lock_guard lock(large_blocks_lock);
    for (large_block &block : large_blocks) {
        if (stand_in != nullptr && block.stand_in == nullptr &&
            (block.bytes == bytes || block.memory == nullptr)) {
            block.memory = block.memory == nullptr ? malloc(bytes) : block.memory;
            ASAN_UNPOISON_MEMORY_REGION(block.memory, bytes);
            block = {block.memory, bytes, stand_in};
            return block.memory;
        }
    }
    require(stand_in == nullptr, "a recording has no more than 8 large blocks");
    return nullptr;
}

extern "C" void __wrap_QVR_free(void *memory)
{
    const std::lock_guard lock(large_blocks_lock);
    for (large_block &block : large_blocks) {
        if (memory != nullptr && block.memory == memory) {
            require(block.stand_in != nullptr, "a block is freed once");
            __real_QVR_free(block.stand_in);
            block.stand_in = nullptr;
            ASAN_POISON_MEMORY_REGION(memory, block.bytes);
            return;
        }
    }
    __real_QVR_free(memory);
}

extern "C" int32_t __real_QVR_MP4_MUX(int32_t op, void **handle, void *param1, void *param2);

// Shrinks the caches, so that the tables of few frames outgrow them.
extern "C" int32_t __wrap_QVR_MP4_MUX(int32_t op, void **handle, void *param1, void *param2)
{
    if (op == MUX_OPEN) {
        if (environment.cache_units > 0) {
            mp4_mux_init_t *const init = static_cast<mp4_mux_init_t *>(param1);
            init->m_iCacheSize = static_cast<int32_t>(environment.cache_units * 24);
            init->m_iVideoCacheSize = static_cast<int32_t>(environment.cache_units * 16);
            init->m_iAudioCacheSize = static_cast<int32_t>(environment.cache_units * 8);
        }
        std::fill(environment.given, std::end(environment.given), frame_totals{});
        environment.is_whole = true;
    }
    if (op == MUX_CLOSE && environment.cache_units > 0 && param1 != nullptr) {
        mp4_mux_closemem_t *const memory = static_cast<mp4_mux_closemem_t *>(param1);
        memory->m_iSize =
            static_cast<int32_t>(environment.cache_units * environment.cache_units * 4);
    }
    const int32_t result = __real_QVR_MP4_MUX(op, handle, param1, param2);
    if (op == MUX_PUTFRAME && result >= 0) {
        const mp4_mux_putstream_t *const frame = static_cast<const mp4_mux_putstream_t *>(param1);
        environment.given[frame->m_iType].count++;
        environment.given[frame->m_iType].bytes += static_cast<uint64_t>(frame->m_iDataSize);
    }
    environment.is_whole = environment.is_whole && (result >= 0 || op == MUX_GET_LAST_ERROR);
    return result;
}

extern "C" void *__wrap_QVR_FILE_fopen(const char *name, const char *mode)
{
    const int file = memfd_create("fuzz", 0);
    if (std::strcmp(name, kOutputPath) == 0) {
        (void)close(environment.output_file);
        environment.output_file = dup(file);
    }
    FILE *const stream = fdopen(file, mode);
    (void)setvbuf(stream, nullptr, _IONBF, 0);
    return stream;
}

extern "C" size_t __wrap_QVR_FILE_fwrite(const void *bytes, size_t size, size_t count, void *file)
{
    if (environment.writes_left == 0) {
        return 0;
    }
    environment.writes_left--;
    return fwrite(bytes, size, count, static_cast<FILE *>(file));
}

extern "C" int __wrap_remove(const char *)
{
    return 0;
}
