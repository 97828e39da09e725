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
static_assert(TDMBREC_EVENT_END_OF_STREAM == 5, "end of stream");
static_assert(TDMBREC_EVENT_END_OF_RECORDING == 0x7F000005, "end of recording");
static_assert(sizeof(global_ui_VIDEO_PTS) == 400, "50 segments of two words");
static_assert(TDMBREC_STOP_STORAGE == 0 && TDMBREC_STOP_CLIENT == 1, "reasons");
static_assert(TDMBREC_STOP_STORAGE_FULL == 2 && TDMBREC_STOP_MUX_OPEN == 4, "reasons");
static_assert(TDMBREC_STOP_WRITE == 5 && TDMBREC_STOP_SIZE_LIMIT == 6, "reasons");
static_assert(TDMBREC_STOP_DESTROYED == 7, "reasons");
static_assert(TDMBREC_LEAST_FREE_KIB == 51200, "full");
static_assert(TDMBREC_FILE_LIMIT_BYTES == 1800000000, "largest file");
static_assert(TDMBREC_PICTURE_WIDTH == 320 && TDMBREC_PICTURE_HEIGHT == 240, "picture");

// A player in C and one in C++ need no cast.
#ifdef __cplusplus
extern "C"
#endif
OMX_ERRORTYPE start_recording(OMX_HANDLETYPE recorder, char *path);

OMX_ERRORTYPE start_recording(OMX_HANDLETYPE recorder, char *path)
{
    const OMX_ERRORTYPE error = OMX_SetParameter(recorder, TDMBREC_INDEX_OUTPUT_PATH, path);
    return error == OMX_ErrorNone ? OMX_SetParameter(recorder, TDMBREC_INDEX_START, path) : error;
}
