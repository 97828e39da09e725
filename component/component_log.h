// Tags of the component's log lines.
#ifndef COMPONENT_COMPONENT_LOG_H
#define COMPONENT_COMPONENT_LOG_H

#include "platform/android_log.h"

#define TDMBREC_LOG_TAG "OMX_TDMB_REC"
#define ZPL_AENC_LOG_TAG "ZPL_AENC"

#endif // COMPONENT_COMPONENT_LOG_H
