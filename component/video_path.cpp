#include "component/video_path.h"

#include "component/access_unit.h"
#include "component/component_log.h"
#include "component/frame_writer.h"
#include "component/losses.h"
#include "component/mux_session.h"
#include "component/parameter_sets.h"
#include "component/time_line.h"
#include "platform/qvr_memory.h"

#include <algorithm>
#include <cstring>

// The size of a frame is an int32_t, and lengths can make it larger than its access unit.
static constexpr uint32_t kLargestAccessUnit = INT32_MAX / 2;

// The decoder configuration is taken from this much of a buffer.
static constexpr uint32_t kScanBytes = sizeof(omx_tdmbrec_component_PrivateType::aucVideoConfig);

// Zeros may precede the first start code.
// source: ITU-T H.264, B.1.1 leading_zero_8bits
static void skip_leading_zeros(uint8_t **data, uint32_t *length)
{
    while (*length > kStartCodeBytes && (*data)[0] == 0 && (*data)[1] == 0 && (*data)[2] == 0 &&
           (*data)[3] == 0) {
        (*data)++;
        (*length)--;
    }
}

static bool has_parameter_sets(const access_unit_t *access_unit)
{
    return count_leading_sets(access_unit) > 0;
}

// returns: whether the leading parameter sets are one SPS and one PPS within the scan, together
//          with the header of the unit after them, if there is one
static bool fit_the_scan(const access_unit_t *access_unit)
{
    const uint32_t header = access_unit->picture_unit_count == 0 ? 0 : kStartCodeBytes + 1;
    return access_unit->sps_count == 1 && access_unit->pps_count == 1 &&
           !access_unit->has_short_leading_codes &&
           access_unit->picture_offset + header <= kScanBytes;
}

// Until the length of the configuration is known, all that the scan reads is kept.
static void keep_scanned_bytes(omx_tdmbrec_component_PrivateType *self, const uint8_t *data,
                               uint32_t length)
{
    if (self->ucVideoConfigLen == 0) {
        memcpy(self->aucVideoConfig, data, std::min<uint32_t>(length, kScanBytes));
    }
}

// Opens the file with the parameter sets of this buffer: as the decoder configuration when they
// fit the scan, else within the access units, from which the muxer builds the configuration.
// returns: false when the file could not be opened; true also when the sets do not suffice
static bool open_file(omx_tdmbrec_component_PrivateType *self, const access_unit_t *access_unit,
                      uint32_t length)
{
    if (!has_both_kinds(access_unit)) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "Parameter sets without a usable SPS and PPS: %u bytes dropped\n",
                            length);
        return true;
    }
    const bool is_captured = fit_the_scan(access_unit);
    self->bInBandParameterSets = is_captured ? 0 : 1;
    self->ucVideoConfigLen =
        is_captured ? static_cast<uint8_t>(access_unit->picture_offset) : uint8_t{0};
    return omx_tdmbrec_mp4_mux_Init(self) == OMX_ErrorNone;
}

// Memory for an access unit that outgrows its buffer, kept until the recording ends.
// returns: null when memory is short
static uint8_t *get_frame_memory(omx_tdmbrec_component_PrivateType *self, uint32_t bytes)
{
    if (self->uiVideoFrameSize < bytes) {
        QVR_free(self->pucVideoFrame);
        self->uiVideoFrameSize = std::max<uint32_t>(bytes, TDMBREC_PORT_BUFFER_BYTES);
        self->pucVideoFrame = static_cast<uint8_t *>(QVR_malloc(self->uiVideoFrameSize));
        if (self->pucVideoFrame == nullptr) {
            self->uiVideoFrameSize = 0;
        }
    }
    return self->pucVideoFrame;
}

static void note_missing_memory(omx_tdmbrec_component_PrivateType *self, uint32_t length)
{
    note_loss(self, kLostPictureMemory);
    __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                        "No memory for an access unit: %u bytes dropped\n", length);
}

// Makes the frame of unit_count units in start-code form.
static void make_frame(omx_tdmbrec_component_PrivateType *self, uint8_t *data, uint32_t length,
                       uint32_t unit_count, const access_unit_t *access_unit,
                       mp4_mux_putstream_t *frame)
{
    uint8_t *out = data;
    uint32_t frame_bytes = length;
    if (unit_count == 1 && !access_unit->has_short_start_codes && !access_unit->has_empty_units) {
        write_be32(data, length - kStartCodeBytes);
    } else {
        if (access_unit->has_short_start_codes) {
            out = get_frame_memory(self, length + unit_count);
        }
        if (out == nullptr) {
            note_missing_memory(self, length);
            return;
        }
        frame_bytes = prefix_lengths(data, length, out);
    }
    frame->m_pbyData = out;
    frame->m_iDataSize = static_cast<int32_t>(frame_bytes);
    frame->m_iType = MUX_TYPE_VIDEO;
}

static void make_picture_frame(omx_tdmbrec_component_PrivateType *self, uint8_t *data,
                               uint32_t length, const access_unit_t *access_unit,
                               mp4_mux_putstream_t *frame)
{
    uint32_t offset = access_unit->picture_offset;
    uint32_t unit_count = access_unit->picture_unit_count;
    if (self->bInBandParameterSets != 0) {
        offset = 0;
        unit_count += count_leading_sets(access_unit);
    }
    make_frame(self, data + offset, length - offset, unit_count, access_unit, frame);
}

// Handles parameter sets without a picture. One of each kind within the scan opens the file, which
// is enough for audio and for frames that arrive through the FIFOs.
// returns: false when the file could not be opened
static bool handle_sets_alone(omx_tdmbrec_component_PrivateType *self, const uint8_t *data,
                              uint32_t length, const access_unit_t *access_unit, uint32_t time_ms)
{
    if (self->iMuxOpenResult != 0 && has_both_kinds(access_unit) && fit_the_scan(access_unit)) {
        keep_scanned_bytes(self, data, length);
        if (!open_file(self, access_unit, length)) {
            return false;
        }
        self->bOpenedBySetsAlone = 1;
    }
    if (self->iMuxOpenResult == 0 && self->bInBandParameterSets == 0 &&
        self->uiFirstVideoPts == 0) {
        self->uiFirstVideoPts = time_ms;
    }
    return true;
}

// Makes the picture of an access unit the first one of the file.
static void begin_file(omx_tdmbrec_component_PrivateType *self, const uint8_t *data,
                       const access_unit_t *access_unit, uint32_t time_ms)
{
    if (self->uiFirstVideoPts == 0 || !has_written_frames(self)) {
        self->uiFirstVideoPts = time_ms;
    }
    self->bFileBegun = 1;
    // The file was opened with other parameter sets: these go into its access units.
    if (self->bOpenedBySetsAlone != 0 && self->bInBandParameterSets == 0 &&
        (access_unit->picture_offset != self->ucVideoConfigLen ||
         memcmp(data, self->aucVideoConfig, self->ucVideoConfigLen) != 0)) {
        self->bInBandParameterSets = 1;
    }
}

// returns: false when the file could not be opened
static bool use_parameter_sets(omx_tdmbrec_component_PrivateType *self, const uint8_t *data,
                               uint32_t length, const access_unit_t *access_unit, uint32_t time_ms)
{
    if (self->iMuxOpenResult != 0 && !open_file(self, access_unit, length)) {
        return false;
    }
    if (self->iMuxOpenResult == 0 && self->bFileBegun == 0 && time_ms != 0 &&
        (self->bInBandParameterSets == 0 || has_both_kinds(access_unit))) {
        begin_file(self, data, access_unit, time_ms);
    }
    if (self->bFileBegun != 0) {
        forget_kept_sets(self);
    }
    return true;
}

// Joins the kept parameter sets and the picture in the memory for frames.
// returns: false when memory is short
static bool join_with_kept_sets(omx_tdmbrec_component_PrivateType *self, uint8_t **data,
                                uint32_t *length, access_unit_t *access_unit)
{
    uint8_t *const memory =
        get_frame_memory(self, self->uiKeptSetsLen + *length + access_unit->picture_unit_count);
    if (memory == nullptr) {
        note_missing_memory(self, *length);
        return false;
    }
    *length = join_kept_sets(self, *data, *length, access_unit, memory);
    *data = memory;
    return describe_access_unit(memory, *length, access_unit);
}

// Leaves out a picture before the first one of the file.
static void skip_picture(omx_tdmbrec_component_PrivateType *self, uint32_t time_ms)
{
    note_loss(self, self->iMuxOpenResult == 0 && time_ms == 0 ? kLostPictureAtTimeZero
                                                              : kLostPictureBeforeSets);
    if (self->uiFirstVideoPts != 0 && !has_written_frames(self)) {
        self->uiFirstVideoPts = 0; // the pictures arrive through the port: audio waits for them
    }
}

// returns: false when the file could not be opened
static bool handle_picture(omx_tdmbrec_component_PrivateType *self, uint8_t *data, uint32_t length,
                           access_unit_t *access_unit, uint32_t time_ms, mp4_mux_putstream_t *frame)
{
    if (takes_kept_sets(self, access_unit) &&
        !join_with_kept_sets(self, &data, &length, access_unit)) {
        return true;
    }
    keep_scanned_bytes(self, data, length);
    if (has_parameter_sets(access_unit) &&
        !use_parameter_sets(self, data, length, access_unit, time_ms)) {
        return false;
    }
    if (self->bFileBegun != 0) {
        make_picture_frame(self, data, length, access_unit, frame);
    } else if (access_unit->has_slice) {
        skip_picture(self, time_ms);
    }
    return true;
}

// returns: false when the file could not be opened
static bool handle_access_unit(omx_tdmbrec_component_PrivateType *self, uint8_t *data,
                               uint32_t length, uint32_t time_ms, mp4_mux_putstream_t *frame)
{
    skip_leading_zeros(&data, &length);
    access_unit_t access_unit;
    if (length > kLargestAccessUnit || !describe_access_unit(data, length, &access_unit)) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "No access unit after a start code: %u bytes dropped\n", length);
        note_loss(self, kLostVideoBuffer);
        return true;
    }
    if (has_parameter_sets(&access_unit)) {
        keep_parameter_sets(self, data, &access_unit);
    }
    frame->m_uiTimeStamp = time_ms;
    frame->m_uiTimeStamp2 = time_ms;
    frame->m_uiFlags = access_unit.is_idr ? uint32_t{MUX_FRAME_KEY} : 0u;
    return access_unit.picture_unit_count == 0
               ? handle_sets_alone(self, data, length, &access_unit, time_ms)
               : handle_picture(self, data, length, &access_unit, time_ms, frame);
}

bool handle_video_buffer(omx_tdmbrec_component_PrivateType *self, OMX_BUFFERHEADERTYPE *buffer,
                         uint32_t time_ms, mp4_mux_putstream_t *frame)
{
    const bool is_open = handle_access_unit(self, buffer->pBuffer + buffer->nOffset,
                                            buffer->nFilledLen, time_ms, frame);
    if (is_open) {
        note_video_time(self, time_ms);
    }
    buffer->nFilledLen = 0;
    return is_open;
}

void reset_video_path(omx_tdmbrec_component_PrivateType *self)
{
    self->ucVideoConfigLen = 0;
    self->uiFirstVideoPts = 0;
    self->bFileBegun = 0;
    self->bOpenedBySetsAlone = 0;
    self->bInBandParameterSets = 0;
    QVR_free(self->pucVideoFrame);
    self->pucVideoFrame = nullptr;
    self->uiVideoFrameSize = 0;
}
