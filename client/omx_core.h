// What the desk's OpenMAX IL core adds to the standard's own calls.
#ifndef CLIENT_OMX_CORE_H
#define CLIENT_OMX_CORE_H

#ifdef __cplusplus
extern "C" {
#endif

// Why a component's library could not be loaded when last tried; an empty text when nothing failed.
// thread: any that makes no other call of the core at the same time.
const char *omx_core_load_error(void);

#ifdef __cplusplus
}
#endif

#endif // CLIENT_OMX_CORE_H
