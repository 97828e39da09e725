// The muxer's file access: the C library's calls, with a trace of every open and close in the log.
//
// returns: the C library's result
// thread: under lockTDMBRecording
#ifndef COMPONENT_FILE_CALLBACKS_H
#define COMPONENT_FILE_CALLBACKS_H

#include "component/tdmbrec_interface.h"

#include <cstddef>
#include <cstdint>

extern "C" {

TDMBREC_API void *QVR_FILE_fopen(const char *name, const char *mode);
TDMBREC_API int QVR_FILE_fclose(void *file);
TDMBREC_API size_t QVR_FILE_fread(void *buffer, size_t size, size_t count, void *file);
TDMBREC_API size_t QVR_FILE_fwrite(const void *buffer, size_t size, size_t count, void *file);
TDMBREC_API int QVR_FILE_fseek(void *file, int32_t offset, int whence);
TDMBREC_API int32_t QVR_FILE_ftell(void *file);

} // extern "C"

#endif // COMPONENT_FILE_CALLBACKS_H
