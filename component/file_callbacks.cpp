#include "component/file_callbacks.h"

#include "component/component_log.h"

#include <cstdio>

// The trace prints 32 bits of a handle on every machine.
static unsigned handle_word(const void *file)
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(file));
}

void *QVR_FILE_fopen(const char *name, const char *mode)
{
    FILE *const file = fopen(name, mode);
    if (file == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "In %s : %s open error\n", __func__, name);
    } else {
        __android_log_print(ANDROID_LOG_WARN, kLogTag, "In %s : %s opened\n", __func__, name);
        // The muxer has its own cache: what fwrite reports as written must be on the card.
        (void)setvbuf(file, nullptr, _IONBF, 0);
    }
    __android_log_print(ANDROID_LOG_WARN, kLogTag, "In %s : File Handle[0x%08x]\n", __func__,
                        handle_word(file));
    return file;
}

int QVR_FILE_fclose(void *file)
{
    __android_log_print(ANDROID_LOG_WARN, kLogTag, "In %s, File Handle[0x%08x]\n", __func__,
                        handle_word(file));
    const int result = fclose(static_cast<FILE *>(file));
    __android_log_print(ANDROID_LOG_WARN, kLogTag, "%s return %d\n", __func__, result);
    return result;
}

size_t QVR_FILE_fread(void *buffer, size_t size, size_t count, void *file)
{
    const size_t result = fread(buffer, size, count, static_cast<FILE *>(file));
    if (static_cast<ptrdiff_t>(result) < 0) { // never
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "In %s : read  error\n", __func__);
    }
    return result;
}

size_t QVR_FILE_fwrite(const void *buffer, size_t size, size_t count, void *file)
{
    const size_t result = fwrite(buffer, size, count, static_cast<FILE *>(file));
    if (static_cast<ptrdiff_t>(result) < 0) { // never
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "In %s : write  error\n", __func__);
    }
    return result;
}

int QVR_FILE_fseek(void *file, int32_t offset, int whence)
{
    return fseek(static_cast<FILE *>(file), offset, whence);
}

int32_t QVR_FILE_ftell(void *file)
{
    return static_cast<int32_t>(ftell(static_cast<FILE *>(file)));
}
