// The buffer callback: consumes the client's buffers and, while a recording is active, records
// them.
#include "component/audio_path.h"
#include "component/component_log.h"
#include "component/frame_writer.h"
#include "component/losses.h"
#include "component/omx_tdmbrec_component.h"
#include "component/private_record.h"
#include "component/recording_end.h"
#include "component/shared_fields.h"
#include "component/storage_watch.h"
#include "component/time_line.h"
#include "component/video_path.h"

#include <optional>

// Why the recording must end; empty while it continues.
using stop_demand_t = std::optional<tdmbrec_stop_reason_t>;

static bool is_within_allocation(const OMX_BUFFERHEADERTYPE *buffer)
{
    return buffer->pBuffer != nullptr && buffer->nOffset <= buffer->nAllocLen &&
           buffer->nFilledLen <= buffer->nAllocLen - buffer->nOffset;
}

static stop_demand_t demand_after_write(write_result_t result)
{
    switch (result) {
    case kWriteFailed:
        return TDMBREC_STOP_WRITE;
    case kWriteSizeLimit:
        return TDMBREC_STOP_SIZE_LIMIT;
    case kWriteDone:
    case kWriteNothing:
        break;
    }
    return std::nullopt;
}

static stop_demand_t record_video(omx_tdmbrec_component_PrivateType *self,
                                  OMX_BUFFERHEADERTYPE *buffer, uint32_t time_ms)
{
    mp4_mux_putstream_t frame = {};
    if (!handle_video_buffer(self, buffer, time_ms, &frame)) {
        return TDMBREC_STOP_MUX_OPEN;
    }
    return demand_after_write(write_frame(self, &frame));
}

static stop_demand_t record_audio(omx_tdmbrec_component_PrivateType *self,
                                  OMX_BUFFERHEADERTYPE *buffer, uint32_t time_ms)
{
    return demand_after_write(handle_audio_buffer(self, buffer, time_ms));
}

// Records a buffer and consumes it, except one that is to be offered again.
static stop_demand_t record_buffer(omx_tdmbrec_component_PrivateType *self,
                                   OMX_BUFFERHEADERTYPE *buffer)
{
    switch (check_storage(self->szRecordingPath)) {
    case kStorageUnusable:
        buffer->nFilledLen = 0;
        return TDMBREC_STOP_STORAGE;
    case kStorageFull:
        buffer->nFilledLen = 0;
        return TDMBREC_STOP_STORAGE_FULL;
    case kStorageUsable:
        break;
    }
    if (!is_within_allocation(buffer)) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "Buffer beyond its allocation: %u + %u of %u bytes, dropped\n",
                            buffer->nOffset, buffer->nFilledLen, buffer->nAllocLen);
        note_loss(self, kLostBeyondAllocation);
        buffer->nFilledLen = 0;
        return std::nullopt;
    }
    uint32_t time_ms = 0;
    if (!map_time_stamp(self, buffer->nTimeStamp, &time_ms)) {
        buffer->nFilledLen = 0;
        return std::nullopt;
    }
    return self->ucBufferPort == TDMBREC_PORT_VIDEO ? record_video(self, buffer, time_ms)
                                                    : record_audio(self, buffer, time_ms);
}

// bCallbackIdle is cleared before bRecording is read: a thread that has ended the recording and
// then reads bCallbackIdle as 1 knows that no buffer is being recorded.
void omx_tdmbrec_component_BufferMgmtCallback(OMX_COMPONENTTYPE *component,
                                              OMX_BUFFERHEADERTYPE *buffer)
{
    omx_tdmbrec_component_PrivateType *const self = private_record(component);
    if (omx_base_get_state(&self->stBase) != OMX_StateExecuting) {
        return;
    }
    store_shared<uint32_t>(self->bCallbackIdle, 0);
    stop_demand_t demand;
    if (load_shared(self->bRecording) == 1) {
        demand = record_buffer(self, buffer);
    } else {
        buffer->nFilledLen = 0;
    }
    const bool ends_recording = demand.has_value() && take_recording(self);
    store_shared<uint32_t>(self->bCallbackIdle, 1);
    if (ends_recording) {
        begin_stop(component, *demand);
    }
}
