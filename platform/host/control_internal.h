// The controls, for the units of the stand-in.
#ifndef PLATFORM_HOST_CONTROL_INTERNAL_H
#define PLATFORM_HOST_CONTROL_INTERNAL_H

#include "platform/host/host_control.h"

// Counts one call.
// returns: whether it must fail
[[nodiscard]] bool host_call_fails(host_call_t call);

// Reset each unit's settings to their defaults.
void host_reset_log(void);
void host_reset_properties(void);
void host_reset_storage(void);

#endif // PLATFORM_HOST_CONTROL_INTERNAL_H
