// The file access that the muxer session lends to the muxer: the C library's calls with a trace of
// every open and close in the log. Each returns the C library's result unchanged.
#ifndef COMPONENT_FILE_CALLBACKS_H
#define COMPONENT_FILE_CALLBACKS_H

#include "component/tdmbrec_interface.h"

#include <cstddef>
#include <cstdint>

#ifdef __cplusplus
extern "C" {
#endif

TDMBREC_API void *QVR_FILE_fopen(const char *name, const char *mode);
TDMBREC_API int QVR_FILE_fclose(void *file);
TDMBREC_API size_t QVR_FILE_fread(void *buffer, size_t size, size_t count, void *file);
TDMBREC_API size_t QVR_FILE_fwrite(const void *buffer, size_t size, size_t count, void *file);
TDMBREC_API int QVR_FILE_fseek(void *file, int32_t offset, int whence);
TDMBREC_API int32_t QVR_FILE_ftell(void *file);

#ifdef __cplusplus
}
#endif

#endif // COMPONENT_FILE_CALLBACKS_H
