// What a player needs of the recorder component, besides OpenMAX IL itself: port 0 takes H.264
// access units, port 1 takes 16-bit PCM, and the component records both into an MP4 file.
// examples/minimal_player.c is a whole player.
#ifndef COMPONENT_TDMBREC_INTERFACE_H
#define COMPONENT_TDMBREC_INTERFACE_H

#include "platform/omx_il.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TDMBREC_API __attribute__((visibility("default")))

#define TDMBREC_COMPONENT_NAME "OMX.qvr.tdmb.rec"

// A property of the system: milliseconds of programme, as a decimal number. With it, at most so
// much of a recording is not yet on the storage, and its journal is beside it, as its path with the
// suffix, until it is finished. Unset, empty or 0: neither.
#define TDMBREC_CHECKPOINT_PROPERTY "qvr.tdmbrec.checkpoint.ms"
#define TDMBREC_JOURNAL_SUFFIX ".journal"

// Buffers are recorded in Executing, in the order of their port; the ports take turns. A buffer has
// been recorded, or dropped, when it comes back. Its flags are not needed.
enum {
    TDMBREC_PORT_VIDEO = 0, // one access unit per buffer, whose bytes the component changes
    TDMBREC_PORT_AUDIO = 1, // dropped until the first access unit has come back
    TDMBREC_PORT_COUNT = 2
};

enum {
    TDMBREC_PORT_BUFFER_BYTES = 0x100000,
    TDMBREC_PATH_BYTES = 128,
    TDMBREC_NAME_PART_1_BYTES = 22,
    TDMBREC_NAME_PART_2_BYTES = 128,
    TDMBREC_PICTURE_WIDTH = 320, // what port and file declare; the pictures may differ
    TDMBREC_PICTURE_HEIGHT = 240,
    TDMBREC_AUDIO_BIT_RATE = 128000,      // bit/s
    TDMBREC_LEAST_FREE_KIB = 51200,       // at or below this the storage is full
    TDMBREC_FILE_LIMIT_BYTES = 1800000000 // a file that has passed this ends its recording
};

#ifdef __cplusplus
#define TDMBREC_INDEX(number) static_cast<OMX_INDEXTYPE>(number)
#define TDMBREC_EVENT(number) static_cast<OMX_EVENTTYPE>(number)
#else
#define TDMBREC_INDEX(number) ((OMX_INDEXTYPE)(number))
#define TDMBREC_EVENT(number) ((OMX_EVENTTYPE)(number))
#endif

// The memory of a recording besides the encoder's: the cache of the file, those of the tables of
// either track, and the room that the close works in.
enum {
    TDMBREC_OUTPUT_CACHE_BYTES = 0x100000,
    TDMBREC_VIDEO_CACHE_BYTES = 0xC0000,
    TDMBREC_AUDIO_CACHE_BYTES = 0x80000,
    TDMBREC_CLOSE_MEMORY_BYTES = 0x300000
};

// Vendor parameters of OMX_SetParameter.
#define TDMBREC_INDEX_NAME_PART_1 TDMBREC_INDEX(0x7F00002A) // TDMBREC_NAME_PART_1_BYTES
#define TDMBREC_INDEX_NAME_PART_2 TDMBREC_INDEX(0x7F00002B) // TDMBREC_NAME_PART_2_BYTES
#define TDMBREC_INDEX_OUTPUT_PATH                                                                  \
    TDMBREC_INDEX(0x7F00002C)                         // TDMBREC_PATH_BYTES, of the next recording
#define TDMBREC_INDEX_START TDMBREC_INDEX(0x7F00002D) // any non-null record
#define TDMBREC_INDEX_STOP TDMBREC_INDEX(0x7F00002E)  // any non-null record

// Events of the component. The end of a recording carries 0 and the tdmbrec_stop_reason_t; the end
// of stream carries 0 and 1, with the number that the broadcast player expects.
#define TDMBREC_EVENT_END_OF_RECORDING TDMBREC_EVENT(0x7F000005)
#define TDMBREC_EVENT_END_OF_STREAM TDMBREC_EVENT(5)

// Why a recording ended.
typedef enum tdmbrec_stop_reason_t {
    TDMBREC_STOP_STORAGE = 0,      // the storage is not usable, or no file was ever opened
    TDMBREC_STOP_CLIENT = 1,       // the client asked
    TDMBREC_STOP_STORAGE_FULL = 2, // at most TDMBREC_LEAST_FREE_KIB are free
    TDMBREC_STOP_MUX_OPEN = 4,     // the file could not be opened
    TDMBREC_STOP_WRITE = 5,        // writing a frame failed
    TDMBREC_STOP_SIZE_LIMIT = 6,   // the file has passed TDMBREC_FILE_LIMIT_BYTES
    TDMBREC_STOP_DESTROYED = 7     // the component was destroyed
} tdmbrec_stop_reason_t;

// A ring of the video segments of the process's recordings.
enum {
    TDMBREC_VIDEO_SEGMENTS = 50,
    TDMBREC_SEGMENT_LATEST = 0, // word of the current segment: its latest video time (ms)
    TDMBREC_SEGMENT_END = 1,    // word of a finished one: the last time before the gap after it
    TDMBREC_SEGMENT_WORDS = 2
};
TDMBREC_API extern uint32_t global_ui_VIDEO_PTS[TDMBREC_VIDEO_SEGMENTS][TDMBREC_SEGMENT_WORDS];
TDMBREC_API extern uint8_t global_uc_write_index; // of the current segment

// The library's entry point: makes the handle the component TDMBREC_COMPONENT_NAME.
// returns: OMX_ErrorNone, OMX_ErrorBadParameter for a null handle, OMX_ErrorInsufficientResources
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_Init(OMX_COMPONENTTYPE *component);

// Bodies of the writer threads, for a program that makes frames itself; the component starts
// neither. While a recording is active, they write the frames of FIFO 1 (video) and FIFO 0 (audio)
// of component/frame_fifo.h to its file: the low 32 bits of a frame's time are its time in the file
// (ms), its extra word is its flags. Frames wait until the file is open. A failed write and a file
// past its limit end the recording.
// in: component: the handle
TDMBREC_API void *omx_tdmbrec_video_thread(void *component);
TDMBREC_API void *omx_tdmbrec_audio_thread(void *component);

#ifdef __cplusplus
}
#endif

#endif // COMPONENT_TDMBREC_INTERFACE_H
