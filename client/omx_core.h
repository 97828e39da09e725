// The client's OpenMAX IL core, beyond the calls of the standard.
#ifndef CLIENT_OMX_CORE_H
#define CLIENT_OMX_CORE_H

// returns: why a component's library could not be loaded at the last attempt; empty when it was
// thread: any, while no other thread calls the core
const char *omx_core_load_error(void);

// in: name: of a component whose library OMX_Init has loaded
// returns: the address of a function that the library exports; null when there is none
void *omx_core_symbol(const char *name, const char *symbol);

#endif // CLIENT_OMX_CORE_H
