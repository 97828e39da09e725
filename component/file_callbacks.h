// The file access that the muxer session lends to the muxer: the C library's calls with a trace of
// every open and close in the log. Each returns the C library's result unchanged.
#ifndef COMPONENT_FILE_CALLBACKS_H
#define COMPONENT_FILE_CALLBACKS_H

#include "component/omx_tdmbrec_component.h"

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

TDMBREC_API void *QVR_FILE_fopen(const char *pszName, const char *pszMode);
TDMBREC_API int QVR_FILE_fclose(void *hFile);
TDMBREC_API size_t QVR_FILE_fread(void *pBuffer, size_t size, size_t count, void *hFile);
TDMBREC_API size_t QVR_FILE_fwrite(const void *pBuffer, size_t size, size_t count, void *hFile);
TDMBREC_API int QVR_FILE_fseek(void *hFile, int32_t iOffset, int iWhence);
TDMBREC_API int32_t QVR_FILE_ftell(void *hFile);

#ifdef __cplusplus
}
#endif

#endif // COMPONENT_FILE_CALLBACKS_H
