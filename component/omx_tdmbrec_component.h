// The recorder component "OMX.qvr.tdmb.rec": an OpenMAX IL sink that records the H.264 access units
// of port 0 and the 16-bit PCM of port 1 into an MP4 file.
#ifndef COMPONENT_OMX_TDMBREC_COMPONENT_H
#define COMPONENT_OMX_TDMBREC_COMPONENT_H

#include "aacenc/aac_enc.h"
#include "mp4mux/mp4_mux.h"
#include "platform/omx_base.h"

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TDMBREC_API __attribute__((visibility("default")))

#define TDMBREC_PORT_VIDEO 0
#define TDMBREC_PORT_AUDIO 1
#define TDMBREC_PORT_COUNT 2
#define TDMBREC_PORT_BUFFER_BYTES 0x100000

#define TDMBREC_PATH_BYTES 128
#define TDMBREC_NAME_PART_1_BYTES 22
#define TDMBREC_NAME_PART_2_BYTES 128
#define TDMBREC_KEPT_SETS_BYTES 4096

// Vendor parameters, set with OMX_SetParameter.
constexpr OMX_INDEXTYPE TDMBREC_INDEX_NAME_PART_1{0x7F00002A}; // 22 bytes
constexpr OMX_INDEXTYPE TDMBREC_INDEX_NAME_PART_2{0x7F00002B}; // 128 bytes
constexpr OMX_INDEXTYPE TDMBREC_INDEX_OUTPUT_PATH{0x7F00002C}; // 128 bytes
constexpr OMX_INDEXTYPE TDMBREC_INDEX_START{0x7F00002D};       // any non-null record
constexpr OMX_INDEXTYPE TDMBREC_INDEX_STOP{0x7F00002E};        // any non-null record

// End of a recording: first data word 0, second data word the stop reason.
constexpr OMX_EVENTTYPE TDMBREC_EVENT_END_OF_RECORDING{0x7F000005};
// End of stream on a port: the number that the broadcast player expects, with data (0, 1).
constexpr OMX_EVENTTYPE TDMBREC_EVENT_END_OF_STREAM{5};

// Why a recording ended.
typedef enum tdmbrec_stop_reason_t : uint8_t {
    TDMBREC_STOP_STORAGE = 0,      // storage not usable, or no file was ever opened
    TDMBREC_STOP_CLIENT = 1,       // the client asked
    TDMBREC_STOP_STORAGE_FULL = 2, // free space ran out
    TDMBREC_STOP_MUX_OPEN = 4,     // the file could not be opened
    TDMBREC_STOP_WRITE = 5,        // writing a frame failed
    TDMBREC_STOP_SIZE_LIMIT = 6,   // the file would pass 1,800,000,000 bytes
    TDMBREC_STOP_DESTROYED = 7     // the component was destroyed
} tdmbrec_stop_reason_t;

// PCM between the client's buffers and the encoder's frames.
typedef struct tdmbrec_pcm_queue_t {
    uint8_t *pucRead;  // oldest queued byte
    uint32_t uiLength; // bytes queued
} tdmbrec_pcm_queue_t;

// The C library's memory functions, in the order in which the encoder adapter takes them.
typedef struct tdmbrec_memory_functions_t {
    void *(*pfnMalloc)(size_t);
    void *pReserved1;
    void (*pfnFree)(void *);
    void *pReserved3;
    void *(*pfnMemcpy)(void *, const void *, size_t);
    void *(*pfnMemset)(void *, int, size_t);
    void *(*pfnRealloc)(void *, size_t);
    void *(*pfnMemmove)(void *, const void *, size_t);
} tdmbrec_memory_functions_t;

typedef int32_t (*tdmbrec_encoder_function_t)(int32_t op, void **handle, void *arg3, void *arg4);

typedef struct zpl_aenc_t {
    uint8_t *pOutput; // the last frame
    const tdmbrec_memory_functions_t *pstMemory;
    void *hEncoder;
    int32_t iState; // 2: initialise and run; 1: initialise only; 0 and 3: encode does nothing
    int32_t m_iAudioSamplePerSec;
    int32_t m_iAudioChannels;
    int32_t m_iAudioBitsPerSample;
    int32_t m_iAudioBitRates;
    int32_t iOutputLength; // bytes of the last frame
} zpl_aenc_t;

#define ZPL_AENC_FIRST_PCM_BYTES 128

typedef struct zpl_aenc_init_t {
    uint8_t aucReserved[256];
    uint8_t aucFirstPcm[ZPL_AENC_FIRST_PCM_BYTES]; // start of the recording's first audio buffer
} zpl_aenc_init_t;
static_assert(sizeof(zpl_aenc_init_t) == 384, "handed over as one 384-byte record");

typedef struct zpl_aenc_input_t {
    const uint8_t *pPcm; // one frame, 16-bit aligned
    uint32_t uiLength;   // bytes
} zpl_aenc_input_t;

#define TDMBREC_ENDS 8 // recordings of one component whose ends are not yet reported

typedef enum tdmbrec_end_state_t : uint8_t {
    END_FREE = 0, // of no recording
    END_OWED,     // the recording has not ended, or a thread waits to send the report or sends it
    END_HANDED    // queued; whoever sends the report before it sends it too
} tdmbrec_end_state_t;

// The report of a recording's end, from the start of the recording to the return of its event.
typedef struct tdmbrec_end_t {
    struct tdmbrec_end_t *pNext; // the process's recording that ended after it
    OMX_COMPONENTTYPE *pComponent;
    uint64_t uiCount; // ends in a row that share it
    uint8_t ucReason; // tdmbrec_stop_reason_t
    tdmbrec_end_state_t ucState;
} tdmbrec_end_t;

// The component's private record. "atomic" fields are reached through component/shared_fields.h
// only; the others belong to the thread that the comment of their group names.
typedef struct omx_tdmbrec_component_PrivateType {
    omx_base_sink_PrivateType stBase;

    uint32_t bRecording;      // atomic: 1 while a recording is active
    uint32_t bCallbackIdle;   // atomic: 0 while the buffer callback may touch the recording
    int32_t iMuxOpenResult;   // -1 not yet opened, 0 opened; changes under lockTDMBRecording
    uint8_t ucVideoConfigLen; // 0: not yet captured
    uint8_t aucVideoConfig[50];
    uint8_t aucAudioSpecificConfig[2];
    uint32_t uiAudioSpecificConfigLen; // 2, or 0 when the sampling rate has no index
    int64_t llAudioBaseTime;           // us, 0: none yet
    int64_t llVideoBaseTime;           // us, 0: none yet
    uint32_t uiVideoCoding;            // OMX_VIDEO_CODINGTYPE
    uint32_t uiChannels;
    uint32_t uiSampleRate; // atomic: Hz, of the next recording
    uint32_t uiBitsPerSample;
    uint32_t uiAudioCodecTag;
    uint32_t uiBitRate; // bit/s

    // Audio encoder adapter: prepared by the start, used by the buffer thread, released by the
    // stop.
    tdmbrec_pcm_queue_t *pPcmQueue;
    uint8_t *pucPcmBase;
    uint8_t *pucAacOut;
    uint32_t bEncoderReady;
    zpl_aenc_t stZplAenc; // holds the audio settings of this recording
    zpl_aenc_init_t stZplAencInit;
    zpl_aenc_input_t stZplAencInput;
    tdmbrec_memory_functions_t astMemFuncs;
    tdmbrec_encoder_function_t pfnAacEnc;
    int32_t iAencType;
    int32_t iAencOutput;

    // Muxer session: opened by the buffer thread, closed by the stop, written by the buffer thread
    // and the writer threads; under lockTDMBRecording.
    void *hMux;
    mp4_mux_init_t stMuxInit;
    mp4_mux_input_t stMuxInput;
    mp4_mux_error_t stMuxError;
    mp4_mux_closemem_t stMuxCloseMem;

    // Time line: the buffer thread while recording, the stop procedure after it.
    uint8_t ucBufferPort;    // port of the buffer handed to the callback
    uint8_t ucAudioPtsRead;  // into the audio ring
    uint8_t ucAudioPtsWrite; // into the audio ring
    uint32_t uiAacInputSize; // bytes of PCM in one AAC frame
    uint32_t uiAudioFrameMs;
    uint32_t uiVideoIntervalMs;
    uint32_t uiBackupAudioPts; // ms, the last time before the latest rollback
    uint32_t uiBackupVideoPts; // ms
    uint32_t uiLastAudioPts;   // ms, of the last AAC frame produced
    uint32_t uiLastVideoPts;   // ms, of the last video frame handled
    uint32_t uiFirstVideoPts;  // ms, origin of the file's time line; 0: none yet
    uint8_t ucAudioRollbackCount;
    uint8_t ucVideoRollbackCount;
    uint8_t ucVideoIntervalState; // 0xFF until the interval is measured
    uint8_t bMuxOpen;             // under lockTDMBRecording
    pthread_t hStopThread;        // atomic: the last one started; 0 when it has been let go
    pthread_t hAudioWriterThread; // atomic: set by whoever starts the thread, joined by the stop
    pthread_t hVideoWriterThread; // atomic
    int64_t llLastVideoTime;      // us
    int64_t llLastAudioTime;      // us
    char szNamePart1[TDMBREC_NAME_PART_1_BYTES]; // under lockParameters
    char szNamePart2[TDMBREC_NAME_PART_2_BYTES]; // under lockParameters

    char szRecordingPath[TDMBREC_PATH_BYTES + 1]; // szOutFileName as the start found it, terminated
    uint8_t ucAudioPtsCount;                      // entries of the audio ring in use
    tdmbrec_end_t astEnd[TDMBREC_ENDS];           // component/end_reports.cpp, under its lock
    tdmbrec_end_t *pEnd;                          // the same: of the recording under way, or null
    uint32_t bIsLeaving;                          // the same: being destroyed, records no more
    uint8_t bAudioWritten;                        // under lockTDMBRecording: audio in the file
    uint8_t bVideoWritten;                        // under lockTDMBRecording: video in the file
    uint8_t bFileBegun;                           // the file's first picture has come
    uint8_t bOpenedBySetsAlone;   // no picture came with the parameter sets that opened the file
    uint8_t bInBandParameterSets; // the file carries its parameter sets in the access units
    uint8_t *pucVideoFrame;       // room for access units that grow, null until one does
    uint32_t uiVideoFrameSize;    // its bytes
    OMX_ERRORTYPE(*pfnBaseSetCallbacks)
    (OMX_HANDLETYPE handle, OMX_CALLBACKTYPE *callbacks, OMX_PTR app_data);

    // Parameter sets that came without their picture, see component/parameter_sets.h: the buffer
    // thread while recording, the stop procedure after it.
    uint8_t aucKeptSets[TDMBREC_KEPT_SETS_BYTES]; // with start codes of 4 bytes
    uint32_t uiKeptSetsLen;                       // its bytes in use
} omx_tdmbrec_component_PrivateType;

// Published for the client: a table of 50 video segments, two words each. The first word of the
// current entry is the latest video time, the second word of a finished one the last time before
// the gap that ended it (ms). The index is that of the current entry.
TDMBREC_API extern uint32_t global_ui_VIDEO_PTS[50][2];
TDMBREC_API extern uint8_t global_uc_write_index;

// The library's entry point: makes the handle the component "OMX.qvr.tdmb.rec".
// returns what omx_tdmbrec_component_Constructor returns.
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_Init(OMX_COMPONENTTYPE *component);

// Builds the component under one of its names "OMX.qvr.tdmb.rec", "OMX.qvr.video_decoder" or
// "OMX.QVR.avcdec"; the last one sets port 0 to AVC.
// returns OMX_ErrorInsufficientResources, OMX_ErrorInvalidComponentName (what was built stays
// attached for the destructor), or the result of the base constructor.
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_Constructor(OMX_COMPONENTTYPE *component,
                                                            OMX_STRING name);

// Ends an active recording with reason 7, waits until it is closed and reported, and frees the
// component. Not to be called from a callback of the component.
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_Destructor(OMX_COMPONENTTYPE *component);

// returns OMX_ErrorBadParameter for a null record, else the base component's result.
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_GetParameter(OMX_HANDLETYPE handle,
                                                             OMX_INDEXTYPE index,
                                                             OMX_PTR parameter);

// The vendor parameters above and the sampling rate of OMX_IndexParamAudioPcm; everything else
// goes to the base component.
// returns OMX_ErrorBadParameter for a null handle or record, OMX_ErrorInvalidComponent for a handle
// without a component; for a start OMX_ErrorInsufficientResources when another component of the
// process is recording, memory is short, TDMBREC_ENDS ends are not yet reported or the component is
// being destroyed; else 0 or the base's result.
// thread: the client's; a start or stop may also come from the client's event handler.
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_SetParameter(OMX_HANDLETYPE handle,
                                                             OMX_INDEXTYPE index,
                                                             OMX_PTR parameter);

// The component has no configurations, extensions or roles: these return 0 and do nothing.
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_SetConfig(OMX_HANDLETYPE handle,
                                                          OMX_INDEXTYPE index, OMX_PTR config);
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_GetExtensionIndex(OMX_HANDLETYPE handle,
                                                                  OMX_STRING name,
                                                                  OMX_INDEXTYPE *pe_index);
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_ComponentRoleEnum(OMX_HANDLETYPE handle,
                                                                  OMX_U8 *role, OMX_U32 index);

// Carries out one command as the base component does. thread: the message thread.
TDMBREC_API OMX_ERRORTYPE omx_tdmbrec_component_MessageHandler(OMX_COMPONENTTYPE *component,
                                                               omx_base_message_t *message);

// Body of the buffer thread: hands the client's buffers to the buffer callback and gives them back.
// Takes the handle, returns null.
TDMBREC_API void *omx_tdmbrec_component_BufferMgmtFunction(void *component);

// Consumes one buffer of port ucBufferPort and records it while a recording is active. Reports by
// the filled length: 0, the buffer is consumed; otherwise it is to be offered again.
// thread: the buffer thread.
TDMBREC_API void omx_tdmbrec_component_BufferMgmtCallback(OMX_COMPONENTTYPE *component,
                                                          OMX_BUFFERHEADERTYPE *buffer);

// Body of the stop thread: waits for the buffer callback, closes encoder and file, tells the
// client. Takes the handle.
TDMBREC_API void *omx_tdmbrec_stop_thread(void *component);

// Bodies of the writer threads: while a recording is active, they write the frames of FIFO 1
// (video) and FIFO 0 (audio) of component/frame_fifo.h to its file, with the low 32 bits of a
// frame's time as its time in the file (ms) and its extra word as its flags. Until the file is open
// the frames wait. A failed write and a file past its limit end the recording with the reasons 5
// and 6. Take the handle; the component starts neither of them.
TDMBREC_API void *omx_tdmbrec_video_thread(void *component);
TDMBREC_API void *omx_tdmbrec_audio_thread(void *component);

#ifdef __cplusplus
}
#endif

#endif // COMPONENT_OMX_TDMBREC_COMPONENT_H
