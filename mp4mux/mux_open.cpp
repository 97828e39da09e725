#include "mp4mux/mux_open.h"

#include "mp4mux/bitstream_file.h"
#include "mp4mux/calendar.h"
#include "mp4mux/file_head.h"
#include "mp4mux/track.h"

#include <algorithm>

static constexpr int32_t kOwnCacheBytes = 0x54000;
static constexpr uint64_t kSecondsFrom1904To1970 = 2082844800;
static constexpr uint64_t kMaxHeadBytes = INT32_MAX / 2; // frames stay within 32-bit seeks

static void copy_callbacks(mp4_mux_t *mux, const mp4_mux_init_t *init)
{
    mux->m_stMem = {init->m_pfnMalloc,  init->m_pfnFree,   init->m_pfnMemcmp, init->m_pfnMemcpy,
                    init->m_pfnMemmove, init->m_pfnMemset, init->m_pfnRealloc};
    mux->m_stFile = {init->m_pfnFopen,  init->m_pfnFread,   init->m_pfnFseek,  init->m_pfnFtell,
                     init->m_pfnFclose, init->m_pfnFeof,    init->m_pfnFflush, init->m_pfnFwrite,
                     init->m_pfnRemove, init->m_pfnFseek64, init->m_pfnFtell64};
    mux->m_pfnAppendFile = init->m_pfnAppendFile;
}

static bool has_callbacks(const mp4_mux_t *mux)
{
    const mp4_mux_file_t &file = mux->m_stFile;
    return mux->m_stMem.m_pfnMemcpy != nullptr && file.m_pfnFopen != nullptr &&
           file.m_pfnFread != nullptr && file.m_pfnFseek != nullptr && file.m_pfnFtell != nullptr &&
           file.m_pfnFclose != nullptr && file.m_pfnFwrite != nullptr;
}

void align_memory(uint8_t **memory, int32_t *bytes)
{
    const int32_t skipped_bytes = static_cast<int32_t>(-reinterpret_cast<uintptr_t>(*memory) & 3);
    *memory += skipped_bytes;
    *bytes = (*bytes - std::min(*bytes, skipped_bytes)) & ~3;
}

static void copy_parameters(mp4_mux_t *mux, const mp4_mux_init_t *init)
{
    if (mux->m_stFile.m_pfnFseek64 == nullptr || mux->m_stFile.m_pfnFtell64 == nullptr) {
        mux->m_b32BitOffset = 1;
    }
    mux->m_Bs.m_pstMux = mux;
    mux->m_Bs.m_pstError = &mux->m_stLastError;
    mux->m_pBs = &mux->m_Bs;
    mux->m_pOutput = init->m_pOutput;
    mux->m_pszTempDir = init->m_pszTempDir;
    mux->m_iVideoCacheSize = init->m_iVideoCacheSize;
    mux->m_iAudioCacheSize = init->m_iAudioCacheSize;
    mux->m_iCacheSize = init->m_iCacheSize;
    if (init->m_pCacheMem != nullptr) {
        mux->m_bExternalCache = 1;
        mux->m_pCache = static_cast<uint8_t *>(init->m_pCacheMem);
        align_memory(&mux->m_pCache, &mux->m_iCacheSize);
    }
    mux->m_iFileType = kFileType3g2a;
    mux->m_uiStreamFlags = init->m_uiStreamFlags;
    if ((init->m_uiOptions & MUX_OPTION_32BIT_OFFSET) != 0) {
        mux->m_b32BitOffset = 1;
    }
    if ((init->m_uiOptions & MUX_OPTION_OUTPUT_IS_HANDLE) != 0) {
        mux->m_bOutputIsHandle = 1;
        mux->m_Bs.m_hFile = init->m_pOutput; // from here on the muxer closes it
    }
}

// in: head_bytes: the head's bytes besides the boxes
// returns: the fault, or null
static const char *fault_in_user_boxes(const mp4_mux_input_t *input, uint64_t head_bytes)
{
    if (input->m_uiUserBoxCount != 0 && input->m_pstUserBox == nullptr) {
        return "mp4_mux_userbox_t's value is NULL";
    }
    uint64_t total_bytes = head_bytes;
    for (uint32_t i = 0; i < input->m_uiUserBoxCount; i++) {
        const mp4_mux_userbox_t &box = input->m_pstUserBox[i];
        if (box.m_uiSize != 0 && box.m_pbyData == nullptr) {
            return "mp4_mux_userbox_t's data is NULL";
        }
        total_bytes += box.m_uiSize;
        if (total_bytes > kMaxHeadBytes) {
            return "mp4_mux_userbox_t's data is too large";
        }
    }
    return nullptr;
}

// returns: the fault in the caller's stream description, or null
static const char *fault_in_input(const mp4_mux_input_t *input)
{
    if (input == nullptr) {
        return "mp4_mux_input_t's value is NULL";
    }
    if (input->m_iAudioPrivateSize < 0 || input->m_iVideoPrivateSize < 0) {
        return "size of private data is negative";
    }
    const mp4_mux_ftyp_t *ftyp = input->m_pstFtyp;
    if (ftyp != nullptr && ftyp->m_uiCompatibleCount != 0 && ftyp->m_puiCompatible == nullptr) {
        return "mp4_mux_ftyp_t's value is NULL";
    }
    const uint64_t brands_bytes = ftyp != nullptr ? uint64_t{4} * ftyp->m_uiCompatibleCount : 0;
    if (brands_bytes > kMaxHeadBytes) {
        return "mp4_mux_ftyp_t has too many brands";
    }
    return fault_in_user_boxes(input, brands_bytes);
}

static int32_t check_arguments(mp4_mux_t *mux, const mp4_mux_input_t *input)
{
    if (!has_callbacks(mux)) {
        return fail(&mux->m_stLastError, MUX_ERR_INVALID, "a callback is NULL");
    }
    if ((mux->m_uiStreamFlags & (MUX_STREAM_VIDEO | MUX_STREAM_AUDIO)) == 0) {
        return fail(&mux->m_stLastError, MUX_ERR_NO_STREAM, "stream does not exist");
    }
    const char *fault = fault_in_input(input);
    return fault != nullptr ? fail(&mux->m_stLastError, MUX_ERR_INVALID, fault) : 0;
}

// Pools the three sizes: the two tracks share six sevenths, the output file takes the rest.
static void split_cache(mp4_mux_t *mux)
{
    const int64_t total_bytes =
        int64_t{mux->m_iCacheSize} + mux->m_iVideoCacheSize + mux->m_iAudioCacheSize;
    const int64_t per_track_bytes = (total_bytes - total_bytes / 7) / 2 & ~int64_t{3};
    mux->m_iVideoCacheSize = static_cast<int32_t>(per_track_bytes);
    mux->m_iAudioCacheSize = static_cast<int32_t>(per_track_bytes);
    mux->m_iCacheSize = static_cast<int32_t>(total_bytes - 2 * per_track_bytes);
}

static int32_t prepare_cache(mp4_mux_t *mux)
{
    if (mux->m_bExternalCache == 0) {
        mux->m_iVideoCacheSize = 0; // the given sizes are those of memory that was not lent
        mux->m_iAudioCacheSize = 0;
        mux->m_iCacheSize = kOwnCacheBytes;
        mux->m_pCache = static_cast<uint8_t *>(mux->m_stMem.m_pfnMalloc(kOwnCacheBytes));
        if (mux->m_pCache == nullptr) {
            return fail(&mux->m_stLastError, MUX_ERR_MEMORY, "Insufficient memory to allocate");
        }
    }
    if (mux->m_iCacheSize <= 0) {
        return fail(&mux->m_stLastError, MUX_ERR_CACHE_SIZE, "input cache size is zero");
    }
    if (mux->m_iVideoCacheSize < 0 || mux->m_iAudioCacheSize < 0 ||
        int64_t{mux->m_iCacheSize} + mux->m_iVideoCacheSize + mux->m_iAudioCacheSize > INT32_MAX) {
        return fail(&mux->m_stLastError, MUX_ERR_CACHE_SIZE, "track cache size is out of range");
    }
    if (mux->m_iVideoCacheSize == 0 || mux->m_iAudioCacheSize == 0) {
        split_cache(mux);
    }
    return 0;
}

static int32_t open_output(mp4_mux_t *mux)
{
    void *output = mux->m_pOutput;
    if (mux->m_bOutputIsHandle == 0 && output != nullptr) {
        output = mux->m_stFile.m_pfnFopen(static_cast<const char *>(output), "wb+");
    }
    if (output == nullptr) {
        return fail(&mux->m_stLastError, MUX_ERR_OPEN, "can't open file");
    }
    mp4_mux_open_bitstream_from_external_memory(&mux->m_Bs, mux->m_pCache, mux->m_iCacheSize,
                                                output);
    // A handle need not be at the start of its file.
    if (mux->m_bOutputIsHandle != 0) {
        const int32_t refreshed = bs_refresh(&mux->m_Bs, "can't get the position");
        if (refreshed < 0) {
            return refreshed;
        }
    }
    // The position of the media data, at the end of the head, is kept in 32 bits.
    if (bs_position(&mux->m_Bs) > INT32_MAX) {
        return fail(&mux->m_stLastError, MUX_ERR_INVALID, "output is beyond 32-bit positions");
    }
    return 0;
}

// Places the tracks' cache regions after the output's: audio, then video.
static void place_track_regions(mp4_mux_t *mux)
{
    const bool has_video = (mux->m_uiStreamFlags & MUX_STREAM_VIDEO) != 0;
    const bool has_audio = (mux->m_uiStreamFlags & MUX_STREAM_AUDIO) != 0;
    const int32_t both_bytes = mux->m_iVideoCacheSize + mux->m_iAudioCacheSize;
    if (!has_audio) {
        mux->m_iVideoCacheSize = both_bytes;
        mux->m_iAudioCacheSize = 0;
    } else if (!has_video) {
        mux->m_iAudioCacheSize = both_bytes;
        mux->m_iVideoCacheSize = 0;
    }
    uint8_t *region = mux->m_pCache + mux->m_iCacheSize;
    if (has_audio) {
        mux->m_pAudioCache = region;
    }
    if (has_video) {
        mux->m_pVideoCache = region + mux->m_iAudioCacheSize;
    }
}

static uint64_t creation_time(const mp4_mux_input_t *input)
{
    mp4_mux_tm_t date = {};
    date.m_iYear = input->m_iYear;
    date.m_iMonth = input->m_iMonth;
    date.m_iDay = input->m_iDay;
    date.m_iHour = input->m_iHour;
    date.m_iMinute = input->m_iMinute;
    date.m_iSecond = input->m_iSecond;
    return static_cast<uint64_t>(mp4_mux_tm_to_time(&date)) + kSecondsFrom1904To1970;
}

static int32_t create_tracks_and_head(mp4_mux_t *mux, const mp4_mux_input_t *input)
{
    if ((mux->m_uiStreamFlags & MUX_STREAM_AUDIO) != 0) {
        const int32_t result = add_audio_track(mux, input);
        if (result < 0) {
            return result;
        }
    }
    if ((mux->m_uiStreamFlags & MUX_STREAM_VIDEO) != 0) {
        const int32_t result = add_video_track(mux, input);
        if (result < 0) {
            return result;
        }
    }
    mux->m_ullCreationTime = creation_time(input);
    if (input->m_uiUserBoxCount != 0) {
        mux->m_pstUserBox = input->m_pstUserBox;
        mux->m_uiUserBoxCount = input->m_uiUserBoxCount;
    }
    mux->m_pstFtyp = input->m_pstFtyp;
    return mp4_mux_open(mux);
}

static int32_t open_context(mp4_mux_t *mux, const mp4_mux_input_t *input)
{
    int32_t result = check_arguments(mux, input);
    if (result >= 0) {
        result = prepare_cache(mux);
    }
    if (result >= 0) {
        result = open_output(mux);
    }
    if (result < 0) {
        return result;
    }
    place_track_regions(mux);
    result = create_tracks_and_head(mux, input);
    if (result < 0) {
        mp4_mux_add_err_string("<init", &mux->m_stLastError);
        return result;
    }
    mux->m_iState = kMuxStateRecording;
    return 0;
}

int32_t open_mux(void **handle, const mp4_mux_init_t *init, const mp4_mux_input_t *input)
{
    if (handle == nullptr || init == nullptr || init->m_pfnMalloc == nullptr ||
        init->m_pfnFree == nullptr || init->m_pfnMemset == nullptr) {
        return MUX_ERR_HANDLE;
    }
    void *memory = init->m_pfnMalloc(sizeof(mp4_mux_t));
    if (memory == nullptr) {
        return MUX_ERR_HANDLE;
    }
    init->m_pfnMemset(memory, 0, sizeof(mp4_mux_t));
    mp4_mux_t *mux = static_cast<mp4_mux_t *>(memory);
    copy_callbacks(mux, init);
    copy_parameters(mux, init);
    const int32_t result = open_context(mux, input);
    if (result < 0) {
        mp4_mux_add_err_string("<mux_open", &mux->m_stLastError);
    }
    *handle = mux;
    return result;
}
