#include "client/mux_file.h"

#include "client/failure.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

static FILE *file_of(void *handle)
{
    return static_cast<FILE *>(handle);
}

static int write_error; // errno of the first write that failed; 0 before it

// Keeps the system's reason, which the muxer's error record cannot hold.
static size_t write_all(const void *buffer, size_t size, size_t count, void *handle)
{
    const size_t written = std::fwrite(buffer, size, count, file_of(handle));
    if (written != count && write_error == 0) {
        write_error = errno;
    }
    return written;
}

// Unbuffered: the muxer has its own caches.
static void *open_file(const char *name, const char *mode)
{
    FILE *const file = std::fopen(name, mode);
    if (file != nullptr) {
        std::setvbuf(file, nullptr, _IONBF, 0);
    }
    return file;
}

// returns: the bytes between the expected position and the data, which the muxer adds to the
//          table's position; -1 on failure
static int32_t append_file(void *destination, void *source, int32_t)
{
    FILE *const to = file_of(destination);
    FILE *const from = file_of(source);
    const off_t expected = ftello(to);
    if (expected < 0 || fseeko(to, 0, SEEK_END) != 0) {
        return -1;
    }
    const off_t begin = ftello(to);
    std::rewind(from);
    std::array<uint8_t, 1 << 16> block;
    size_t got = 0;
    while ((got = std::fread(block.data(), 1, block.size(), from)) > 0) {
        if (write_all(block.data(), 1, got, to) != got) {
            return -1;
        }
    }
    if (std::ferror(from) != 0 || begin < expected) {
        return -1;
    }
    std::fclose(from);
    return static_cast<int32_t>(begin - expected);
}

void mux_file_set_callbacks(mp4_mux_init_t &init)
{
    init.m_pfnMalloc = std::malloc;
    init.m_pfnFree = std::free;
    init.m_pfnMemcmp = std::memcmp;
    init.m_pfnMemcpy = std::memcpy;
    init.m_pfnMemmove = std::memmove;
    init.m_pfnMemset = std::memset;
    init.m_pfnRealloc = std::realloc;
    init.m_pfnFopen = open_file;
    init.m_pfnFread = [](void *buffer, size_t size, size_t count, void *handle) {
        return std::fread(buffer, size, count, file_of(handle));
    };
    init.m_pfnFseek = [](void *handle, int32_t offset, int whence) {
        return std::fseek(file_of(handle), offset, whence);
    };
    init.m_pfnFtell = [](void *handle) {
        const off_t position = ftello(file_of(handle));
        return position > INT32_MAX ? -1 : static_cast<int32_t>(position);
    };
    init.m_pfnFclose = [](void *handle) { return std::fclose(file_of(handle)); };
    init.m_pfnFeof = [](void *handle) { return std::feof(file_of(handle)); };
    init.m_pfnFflush = [](void *handle) { return std::fflush(file_of(handle)); };
    init.m_pfnFwrite = write_all;
    init.m_pfnRemove = std::remove;
    init.m_pfnFseek64 = [](void *handle, int64_t offset, int whence) {
        return fseeko(file_of(handle), offset, whence);
    };
    init.m_pfnFtell64 = [](void *handle) -> int64_t { return ftello(file_of(handle)); };
}

std::string mux_file_write_error(void)
{
    return write_error != 0 ? std::strerror(write_error) : "";
}

static mp4_mux_init_t make_init(const mux_options &options)
{
    mp4_mux_init_t init = {};
    mux_file_set_callbacks(init);
    init.m_pfnAppendFile = options.append ? append_file : nullptr;
    init.m_uiOptions = options.wide_offsets ? 0 : MUX_OPTION_32BIT_OFFSET;
    init.m_uiStreamFlags = (options.video.empty() ? 0 : MUX_STREAM_VIDEO) |
                           (options.audio.empty() ? 0 : MUX_STREAM_AUDIO);
    return init;
}

static void check(mux_file &out, int32_t result, const char *what)
{
    if (result >= 0) {
        return;
    }
    mp4_mux_error_t error = {};
    (void)QVR_MP4_MUX(MUX_GET_LAST_ERROR, &out.handle, nullptr, &error);
    const std::string message = error.m_pszMessage != nullptr ? error.m_pszMessage : "no memory";
    const std::string reason = mux_file_write_error();
    throw failure(result == MUX_ERR_CACHE_SIZE ? exit_code::usage : exit_code::output,
                  std::string("the muxer cannot ") + what + ": " + reason +
                      (reason.empty() ? "" : "; ") + message + " (" + std::to_string(result) + ")");
}

mux_file::~mux_file()
{
    // A failed close keeps the handle; the second one only releases.
    for (int attempt = 0; attempt < 2 && handle != nullptr; attempt++) {
        (void)QVR_MP4_MUX(MUX_CLOSE, &handle, nullptr, nullptr);
    }
}

void mux_file_open(mux_file &out, const mux_options &options, std::string path,
                   const std::string &scratch, mp4_mux_input_t &tracks)
{
    mp4_mux_init_t init = make_init(options);
    const mux_memory &memory = options.memory;
    if (!memory.is_own) {
        const size_t bytes = static_cast<size_t>(memory.output) +
                             static_cast<size_t>(memory.video) + static_cast<size_t>(memory.audio);
        out.cache.resize(bytes + 1); // never null, which selects the muxer's own caches
        init.m_pCacheMem = out.cache.data();
        init.m_iCacheSize = memory.output;
        init.m_iVideoCacheSize = memory.video;
        init.m_iAudioCacheSize = memory.audio;
    }
    init.m_pOutput = path.data();
    init.m_pszTempDir = scratch.c_str();
    check(out, QVR_MP4_MUX(MUX_OPEN, &out.handle, &init, &tracks), "begin the file");
}

void mux_file_put(mux_file &out, int32_t type, std::span<const uint8_t> bytes, uint32_t time_ms,
                  bool is_key)
{
    mp4_mux_putstream_t frame = {.m_pbyData = bytes.data(),
                                 .m_iDataSize = static_cast<int32_t>(bytes.size()),
                                 .m_iType = type,
                                 .m_uiTimeStamp = time_ms,
                                 .m_uiTimeStamp2 = time_ms,
                                 .m_uiFlags = is_key ? uint32_t{MUX_FRAME_KEY} : 0};
    check(out, QVR_MP4_MUX(MUX_PUTFRAME, &out.handle, &frame, &out.estimate), "write a frame");
}

void mux_file_close(mux_file &out, const mux_options &options)
{
    std::vector<uint8_t> lent(static_cast<size_t>(options.memory.close));
    mp4_mux_closemem_t memory = {.m_pMem = lent.data(), .m_iSize = options.memory.close};
    const bool lends = options.memory.close > 0;
    check(out, QVR_MP4_MUX(MUX_CLOSE, &out.handle, lends ? &memory : nullptr, nullptr),
          "finish the file");
}
