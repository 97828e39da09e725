// The component's private record, which every unit of the component reads and writes.
#ifndef COMPONENT_PRIVATE_RECORD_H
#define COMPONENT_PRIVATE_RECORD_H

#include "component/end_reports.h"
#include "component/losses.h"
#include "component/tdmbrec_interface.h"
#include "component/zpl_aenc.h"
#include "mp4mux/mp4_mux.h"
#include "platform/omx_base.h"

#include <cstdint>
#include <pthread.h>

inline constexpr uint32_t kKeptSetsBytes = 4096;

using base_set_callbacks_t = OMX_ERRORTYPE (*)(OMX_HANDLETYPE handle, OMX_CALLBACKTYPE *callbacks,
                                               OMX_PTR app_data);

// "Atomic" fields are accessed through component/shared_fields.h only; the others belong to the
// thread that the comment of their group names.
struct omx_tdmbrec_component_PrivateType {
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
    struct tdmbrec_pcm_queue_t *pPcmQueue; // component/audio_encoder.h
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
    struct tdmbrec_checkpoint_t *pCheckpoint; // component/checkpoint.h; null: none are made

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
    uint8_t ucVideoIntervalState; // kIntervalUnmeasured, then 0
    uint8_t bMuxOpen;             // under lockTDMBRecording
    pthread_t hStopThread;        // atomic: the last one started; 0 after let_stop_thread_go
    pthread_t hAudioWriterThread; // atomic: set by whoever starts the thread, joined by the stop
    pthread_t hVideoWriterThread; // atomic
    int64_t llLastVideoTime;      // us
    int64_t llLastAudioTime;      // us
    char szNamePart1[TDMBREC_NAME_PART_1_BYTES]; // under lockParameters
    char szNamePart2[TDMBREC_NAME_PART_2_BYTES]; // under lockParameters

    char szRecordingPath[TDMBREC_PATH_BYTES + 1]; // szOutFileName at the start, terminated
    uint8_t ucAudioPtsCount;                      // entries of the audio ring in use
    tdmbrec_end_t astEnd[kMostUnreportedEnds];    // under the lock of component/end_reports.cpp
    tdmbrec_end_t *pEnd;                          // as above: of the recording under way, or null
    uint32_t bIsLeaving;                          // as above: being destroyed, begins no recording
    uint8_t bAudioWritten;                        // under lockTDMBRecording: audio in the file
    uint8_t bVideoWritten;                        // under lockTDMBRecording: video in the file
    uint8_t bFileBegun;                           // the file has its first picture
    uint8_t bOpenedBySetsAlone;   // the parameter sets that opened the file had no picture
    uint8_t bInBandParameterSets; // the file carries its parameter sets in the access units
    uint8_t *pucVideoFrame;       // room for access units that grow; null until one does
    uint32_t uiVideoFrameSize;    // its bytes
    base_set_callbacks_t pfnBaseSetCallbacks;

    // Parameter sets without their picture (component/parameter_sets.h): the buffer thread while
    // recording, the stop procedure after it.
    uint8_t aucKeptSets[kKeptSetsBytes]; // with start codes of 4 bytes
    uint32_t uiKeptSetsLen;              // its bytes in use

    tdmbrec_losses_t stLosses; // component/losses.h names the threads
};

// returns: the component's own record; null before it is attached
[[nodiscard]] inline omx_tdmbrec_component_PrivateType *private_record(OMX_COMPONENTTYPE *component)
{
    return static_cast<omx_tdmbrec_component_PrivateType *>(component->pComponentPrivate);
}

#endif // COMPONENT_PRIVATE_RECORD_H
