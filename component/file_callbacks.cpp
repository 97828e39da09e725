#include "component/file_callbacks.h"

#include "component/component_log.h"

#include <cstdio>

// The trace prints handles as the device does: 32 bits.
static unsigned handle_word(const void *hFile)
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(hFile));
}

void *QVR_FILE_fopen(const char *pszName, const char *pszMode)
{
    FILE *const hFile = fopen(pszName, pszMode);
    if (hFile == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG, "In %s : %s open error\n", __func__,
                            pszName);
    } else {
        __android_log_print(ANDROID_LOG_WARN, TDMBREC_LOG_TAG, "In %s : %s opened\n", __func__,
                            pszName);
        // The muxer's cache is the buffer: a write that it is told of has to be on the card.
        (void)setvbuf(hFile, nullptr, _IONBF, 0);
    }
    __android_log_print(ANDROID_LOG_WARN, TDMBREC_LOG_TAG, "In %s : File Handle[0x%08x]\n",
                        __func__, handle_word(hFile));
    return hFile;
}

int QVR_FILE_fclose(void *hFile)
{
    __android_log_print(ANDROID_LOG_WARN, TDMBREC_LOG_TAG, "In %s, File Handle[0x%08x]\n", __func__,
                        handle_word(hFile));
    const int result = fclose(static_cast<FILE *>(hFile));
    __android_log_print(ANDROID_LOG_WARN, TDMBREC_LOG_TAG, "%s return %d\n", __func__, result);
    return result;
}

size_t QVR_FILE_fread(void *pBuffer, size_t size, size_t count, void *hFile)
{
    const size_t result = fread(pBuffer, size, count, static_cast<FILE *>(hFile));
    if (static_cast<ptrdiff_t>(result) < 0) {
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG, "In %s : read  error\n", __func__);
    }
    return result;
}

size_t QVR_FILE_fwrite(const void *pBuffer, size_t size, size_t count, void *hFile)
{
    const size_t result = fwrite(pBuffer, size, count, static_cast<FILE *>(hFile));
    if (static_cast<ptrdiff_t>(result) < 0) {
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG, "In %s : write  error\n", __func__);
    }
    return result;
}

int QVR_FILE_fseek(void *hFile, int32_t iOffset, int iWhence)
{
    return fseek(static_cast<FILE *>(hFile), iOffset, iWhence);
}

int32_t QVR_FILE_ftell(void *hFile)
{
    return static_cast<int32_t>(ftell(static_cast<FILE *>(hFile)));
}
