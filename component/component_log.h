// The tag of the component's log lines.
#ifndef COMPONENT_COMPONENT_LOG_H
#define COMPONENT_COMPONENT_LOG_H

#include "platform/android_log.h"

inline constexpr char kLogTag[] = "OMX_TDMB_REC";

#endif // COMPONENT_COMPONENT_LOG_H
