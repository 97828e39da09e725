#include "mp4mux/mp4_mux.h"

#include "mp4mux/bitstream_file.h"
#include "mp4mux/c_strings.h"
#include "mp4mux/frame.h"
#include "mp4mux/moov/finish.h"
#include "mp4mux/mux_context.h"
#include "mp4mux/mux_open.h"
#include "mp4mux/mux_version.h"

#include <cstddef>

// clang-format off
static_assert(sizeof(void *) != 4 || offsetof(mp4_mux_init_t, m_pfnFopen)        == 4 * 16);
static_assert(sizeof(void *) != 4 || offsetof(mp4_mux_init_t, m_pfnRemove)       == 4 * 24);
static_assert(sizeof(void *) != 4 || offsetof(mp4_mux_init_t, m_pOutput)         == 4 * 32);
static_assert(sizeof(void *) != 4 || offsetof(mp4_mux_init_t, m_pCacheMem)       == 4 * 35);
static_assert(sizeof(void *) != 4 || offsetof(mp4_mux_init_t, m_pfnAppendFile)   == 4 * 40);
static_assert(sizeof(void *) != 4 || sizeof(mp4_mux_init_t)                      == 4 * 41);
static_assert(sizeof(void *) != 4 || offsetof(mp4_mux_input_t, m_pstUserBox)     == 4 * 7);
static_assert(sizeof(void *) != 4 || offsetof(mp4_mux_input_t, m_uiVideoTrackID) == 4 * 10);
static_assert(sizeof(void *) != 4 || offsetof(mp4_mux_input_t, m_uiAudioTrackID) == 4 * 17);
static_assert(sizeof(void *) != 4 || offsetof(mp4_mux_input_t, m_szAudioLanguage) == 4 * 24);
static_assert(sizeof(void *) != 4 || sizeof(mp4_mux_putstream_t)                 == 4 * 6);
static_assert(sizeof(void *) != 4 || sizeof(mp4_mux_closemem_t)                  == 4 * 2);
static_assert(sizeof(void *) != 4 || offsetof(mp4_mux_error_t, m_llAux)          == 4 * 2);
// clang-format on

static constexpr int32_t kLargeCloseMemBytes = 1024000;

static int32_t put_frame(mp4_mux_t *mux, const mp4_mux_putstream_t *frame, int64_t *estimate)
{
    mp4_mux_clear_last_error(&mux->m_stLastError);
    if (frame == nullptr) {
        return fail(&mux->m_stLastError, MUX_ERR_INVALID, "mp4_mux_putstream_t's value is NULL");
    }
    const int32_t result = mp4_mux_putframe(mux, frame);
    if (result < 0) {
        return result;
    }
    if (mux->m_stLastError.m_iCode < 0) {
        return mux->m_stLastError.m_iCode;
    }
    if (estimate != nullptr) {
        *estimate = mux->m_llEstimatedFileSize;
    }
    return result;
}

// With an append callback the tables bypass the caches, so that memory for them is no use.
static void take_close_memory(mp4_mux_t *mux, const mp4_mux_closemem_t *lent)
{
    if (lent == nullptr || mux->m_pfnAppendFile != nullptr) {
        return;
    }
    mux->m_pCloseMem = static_cast<uint8_t *>(lent->m_pMem);
    mux->m_iCloseMemSize = lent->m_iSize;
    if (mux->m_pCloseMem == nullptr || mux->m_iCloseMemSize < mux->m_iCacheSize) {
        return;
    }
    align_memory(&mux->m_pCloseMem, &mux->m_iCloseMemSize);
    if (mux->m_iCloseMemSize > 0) {
        mux->m_iCloseMemMode =
            mux->m_iCloseMemSize >= kLargeCloseMemBytes ? kCloseMemLarge : kCloseMemCache;
    }
}

static int32_t close_mux(void **handle, const mp4_mux_closemem_t *lent)
{
    mp4_mux_t *mux = static_cast<mp4_mux_t *>(*handle);
    mp4_mux_clear_last_error(&mux->m_stLastError);
    if (mux->m_iState == kMuxStateEnded) {
        mp4_mux_release(mux);
        *handle = nullptr;
        return 0;
    }
    take_close_memory(mux, lent);
    const int32_t result = mp4_mux_close(mux);
    if (result >= 0) {
        *handle = nullptr;
    }
    return result;
}

// The tables stay in their caches: they are of use only to the close.
static int32_t flush_output(mp4_mux_t *mux, int64_t *file_bytes)
{
    mp4_mux_clear_last_error(&mux->m_stLastError);
    if (mux->m_iState != kMuxStateRecording) {
        return fail(&mux->m_stLastError, MUX_ERR_INVALID, "file is not open for frames");
    }
    if (!bs_write_out(&mux->m_Bs)) {
        mp4_mux_add_err_string("<flush", &mux->m_stLastError);
        return mux->m_stLastError.m_iCode;
    }
    mp4_mux_clear_last_error(
        &mux->m_stLastError); // a file that cannot report its position is no failure
    if (file_bytes != nullptr) {
        *file_bytes = bs_position(&mux->m_Bs);
    }
    return 0;
}

static int32_t get_last_error(const mp4_mux_t *mux, mp4_mux_error_t *error)
{
    if (error != nullptr) {
        mp4_mux_get_last_error(&mux->m_stLastError, &error->m_iCode, &error->m_pszMessage,
                               &error->m_llAux);
    }
    return 0;
}

static int32_t get_version(char *version, char *build_date)
{
    if (version != nullptr) {
        mp4_mux_strcpy(version, kMuxVersion);
    }
    if (build_date != nullptr) {
        mp4_mux_strcpy(build_date, kMuxBuildDate);
    }
    return 0;
}

int32_t QVR_MP4_MUX(int32_t op, void **handle, void *param1, void *param2)
{
    if (op == MUX_OPEN) {
        return open_mux(handle, static_cast<const mp4_mux_init_t *>(param1),
                        static_cast<const mp4_mux_input_t *>(param2));
    }
    if (handle == nullptr || *handle == nullptr) {
        return MUX_ERR_HANDLE;
    }
    mp4_mux_t *mux = static_cast<mp4_mux_t *>(*handle);
    switch (op) {
    case MUX_CLOSE:
        return close_mux(handle, static_cast<const mp4_mux_closemem_t *>(param1));
    case MUX_PUTFRAME:
        return put_frame(mux, static_cast<const mp4_mux_putstream_t *>(param1),
                         static_cast<int64_t *>(param2));
    case MUX_FLUSH:
        return flush_output(mux, static_cast<int64_t *>(param2));
    case MUX_GET_LAST_ERROR:
        return get_last_error(mux, static_cast<mp4_mux_error_t *>(param2));
    case MUX_GET_VERSION:
        return get_version(static_cast<char *>(param1), static_cast<char *>(param2));
    default:
        return fail(&mux->m_stLastError, MUX_ERR_INVALID, "invalid operation code");
    }
}
