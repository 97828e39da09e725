#include "component/tdmbrec_interface.h"

#include <assert.h>

static_assert(TDMBREC_PORT_VIDEO == 0 && TDMBREC_PORT_AUDIO == 1, "ports");
static_assert(TDMBREC_PORT_BUFFER_BYTES == 0x100000, "room of a buffer");
static_assert(TDMBREC_NAME_PART_1_BYTES == 22 && TDMBREC_NAME_PART_2_BYTES == 128, "names");
static_assert(TDMBREC_PATH_BYTES == 128, "path");
static_assert(TDMBREC_INDEX_NAME_PART_1 == 0x7F00002A, "22 bytes");
static_assert(TDMBREC_INDEX_NAME_PART_2 == 0x7F00002B, "128 bytes");
static_assert(TDMBREC_INDEX_OUTPUT_PATH == 0x7F00002C, "128 bytes");
static_assert(TDMBREC_INDEX_START == 0x7F00002D, "start");
static_assert(TDMBREC_INDEX_STOP == 0x7F00002E, "stop");
static_assert(TDMBREC_EVENT_END_OF_RECORDING == 0x7F000005, "end of recording");
static_assert(sizeof(global_ui_VIDEO_PTS) == 400, "50 segments of two words");
