#include "tests/support/recover_file.h"

#include "component/tdmbrec_interface.h"
#include "tests/support/programme.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

static int64_t read_at(void *context, int64_t offset, void *buffer, int64_t count)
{
    const Bytes &bytes = *static_cast<const Bytes *>(context);
    const int64_t rest = std::max<int64_t>(static_cast<int64_t>(bytes.size()) - offset, 0);
    const int64_t got = std::min(count, rest);
    std::copy_n(bytes.data() + std::min<size_t>(static_cast<size_t>(offset), bytes.size()), got,
                static_cast<uint8_t *>(buffer));
    return got;
}

static int64_t size_of(void *context)
{
    return static_cast<int64_t>(static_cast<const Bytes *>(context)->size());
}

static void *open_file(const char *name, const char *mode)
{
    return std::fopen(name, mode);
}

static int close_file(void *file)
{
    return std::fclose(static_cast<FILE *>(file));
}

static size_t read_bytes(void *buffer, size_t size, size_t count, void *file)
{
    return std::fread(buffer, size, count, static_cast<FILE *>(file));
}

static size_t write_bytes(const void *buffer, size_t size, size_t count, void *file)
{
    return std::fwrite(buffer, size, count, static_cast<FILE *>(file));
}

static int seek_file(void *file, int32_t offset, int whence)
{
    return std::fseek(static_cast<FILE *>(file), offset, whence);
}

static int32_t tell_file(void *file)
{
    return static_cast<int32_t>(std::ftell(static_cast<FILE *>(file)));
}

static mp4_mux_init_t make_init(std::string &output)
{
    mp4_mux_init_t init = {};
    init.m_pfnMalloc = std::malloc;
    init.m_pfnFree = std::free;
    init.m_pfnMemcpy = std::memcpy;
    init.m_pfnMemset = std::memset;
    init.m_pfnRealloc = std::realloc;
    init.m_pfnFopen = open_file;
    init.m_pfnFread = read_bytes;
    init.m_pfnFseek = seek_file;
    init.m_pfnFtell = tell_file;
    init.m_pfnFclose = close_file;
    init.m_pfnFwrite = write_bytes;
    init.m_pfnRemove = std::remove;
    init.m_pOutput = output.data();
    init.m_iCacheSize = TDMBREC_OUTPUT_CACHE_BYTES;
    init.m_iVideoCacheSize = TDMBREC_VIDEO_CACHE_BYTES;
    init.m_iAudioCacheSize = TDMBREC_AUDIO_CACHE_BYTES;
    return init;
}

recovered_file recover_file(const std::string &media, const std::string &output)
{
    const std::string journal_path = media + TDMBREC_JOURNAL_SUFFIX;
    Bytes media_bytes = read_file(media);
    const bool has_journal = std::filesystem::exists(journal_path);
    Bytes journal_bytes = has_journal ? read_file(journal_path) : Bytes();
    const recovery_source_t journal = {&journal_bytes, read_at, size_of};
    recovery_input_t input = {};
    input.media = {&media_bytes, read_at, size_of};
    input.journal = has_journal ? &journal : nullptr;
    std::string output_name = output;
    const mp4_mux_init_t init = make_init(output_name);
    recovered_file recovered;
    recovered.result = recovery_write(&input, &init, nullptr, &recovered.report);
    return recovered;
}
