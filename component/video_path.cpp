#include "component/video_path.h"

#include "component/access_unit.h"
#include "component/component_log.h"
#include "component/frame_writer.h"
#include "component/mux_session.h"
#include "component/parameter_sets.h"
#include "component/time_line.h"
#include "platform/qvr_memory.h"

#include <algorithm>
#include <cstring>

static constexpr uint32_t kLargestAccessUnit = INT32_MAX / 2; // with lengths it stays an int32_t

// Zeros may lead up to the first start code (leading_zero_8bits).
static void skip_leading_zeros(uint8_t **data, uint32_t *length)
{
    while (*length > START_CODE_BYTES && (*data)[0] == 0 && (*data)[1] == 0 && (*data)[2] == 0 &&
           (*data)[3] == 0) {
        (*data)++;
        (*length)--;
    }
}

static bool has_parameter_sets(const access_unit_t *access_unit)
{
    return access_unit->uiFrontUnitCount > 0;
}

// True when the parameter sets in front are one SPS and one PPS within what the scan reads; the
// header of the unit behind them, if there is one, has to lie there too.
static bool fit_the_scan(const access_unit_t *access_unit)
{
    const uint32_t header = access_unit->uiUnitCount == 0 ? 0 : START_CODE_BYTES + 1;
    return access_unit->uiSpsCount == 1 && access_unit->uiPpsCount == 1 &&
           !access_unit->has_short_front_codes &&
           access_unit->uiPictureOffset + header <= PARAMETER_SET_SCAN_BYTES;
}

// While nothing is captured, every byte that the scan reads is kept.
static void keep_scanned_bytes(omx_tdmbrec_component_PrivateType *self, const uint8_t *data,
                               uint32_t length)
{
    if (self->ucVideoConfigLen == 0) {
        memcpy(self->aucVideoConfig, data, std::min<uint32_t>(length, PARAMETER_SET_SCAN_BYTES));
    }
}

// Opens the file with the parameter sets of this buffer: as the decoder configuration where they
// were captured, else within the access units, from which the muxer builds the configuration.
// returns false when there is a file to open and it cannot be opened.
static bool open_file(omx_tdmbrec_component_PrivateType *self, const access_unit_t *access_unit,
                      uint32_t length)
{
    if (!has_both_kinds(access_unit)) {
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG,
                            "Parameter sets without a usable SPS and PPS: %u bytes dropped\n",
                            length);
        return true;
    }
    const bool is_captured = fit_the_scan(access_unit);
    self->bInBandParameterSets = is_captured ? 0 : 1;
    self->ucVideoConfigLen =
        is_captured ? static_cast<uint8_t>(access_unit->uiPictureOffset) : uint8_t{0};
    return omx_tdmbrec_mp4_mux_Init(self) == OMX_ErrorNone;
}

// Room for an access unit that does not fit its own buffer; kept until the recording ends.
static uint8_t *get_frame_room(omx_tdmbrec_component_PrivateType *self, uint32_t bytes)
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

static void log_missing_memory(uint32_t length)
{
    __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG,
                        "No memory for an access unit: %u bytes dropped\n", length);
}

// Gives the units of data, which begin with a start code, their lengths.
static void make_frame(omx_tdmbrec_component_PrivateType *self, uint8_t *data, uint32_t length,
                       uint32_t unit_count, const access_unit_t *access_unit,
                       mp4_mux_putstream_t *frame)
{
    uint8_t *out = data;
    uint32_t frame_bytes = length;
    if (unit_count == 1 && !access_unit->has_short_start_codes && !access_unit->has_empty_units) {
        write_be32(data, length - START_CODE_BYTES);
    } else {
        if (access_unit->has_short_start_codes) {
            out = get_frame_room(self, length + unit_count);
        }
        if (out == nullptr) {
            log_missing_memory(length);
            return;
        }
        frame_bytes = prefix_lengths(data, length, out);
    }
    frame->m_pbyData = out;
    frame->m_iDataSize = static_cast<int32_t>(frame_bytes);
    frame->m_iType = MUX_TYPE_VIDEO;
}

static void make_frame_of(omx_tdmbrec_component_PrivateType *self, uint8_t *data, uint32_t length,
                          const access_unit_t *access_unit, mp4_mux_putstream_t *frame)
{
    uint32_t offset = access_unit->uiPictureOffset;
    uint32_t unit_count = access_unit->uiUnitCount;
    if (self->bInBandParameterSets != 0) {
        offset = 0;
        unit_count += access_unit->uiFrontUnitCount;
    }
    make_frame(self, data + offset, length - offset, unit_count, access_unit, frame);
}

// Parameter sets without a picture. One of each kind within what the scan reads open the file: that
// is enough for frames that come through the FIFOs, and for sound.
// returns false when the file could not be opened.
static bool handle_sets_alone(omx_tdmbrec_component_PrivateType *self, const uint8_t *data,
                              uint32_t length, const access_unit_t *access_unit, uint32_t time)
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
        self->uiFirstVideoPts = time;
    }
    return true;
}

// Makes the picture the first one of the file.
static void begin_file(omx_tdmbrec_component_PrivateType *self, const uint8_t *data,
                       const access_unit_t *access_unit, uint32_t time)
{
    if (self->uiFirstVideoPts == 0 || !has_written_frames(self)) {
        self->uiFirstVideoPts = time;
    }
    self->bFileBegun = 1;
    // Parameter sets alone opened the file and others have come since: it carries these as well.
    if (self->bOpenedBySetsAlone != 0 && self->bInBandParameterSets == 0 &&
        (access_unit->uiPictureOffset != self->ucVideoConfigLen ||
         memcmp(data, self->aucVideoConfig, self->ucVideoConfigLen) != 0)) {
        self->bInBandParameterSets = 1;
    }
}

// returns false when the file could not be opened.
static bool use_parameter_sets(omx_tdmbrec_component_PrivateType *self, const uint8_t *data,
                               uint32_t length, const access_unit_t *access_unit, uint32_t time)
{
    if (self->iMuxOpenResult != 0 && !open_file(self, access_unit, length)) {
        return false;
    }
    if (self->iMuxOpenResult == 0 && self->bFileBegun == 0 && time != 0 &&
        (self->bInBandParameterSets == 0 || has_both_kinds(access_unit))) {
        begin_file(self, data, access_unit, time);
    }
    if (self->bFileBegun != 0) {
        forget_kept_sets(self);
    }
    return true;
}

// Puts the kept parameter sets in front of the picture, in the room for frames.
// returns false without memory.
static bool join_with_kept_sets(omx_tdmbrec_component_PrivateType *self, uint8_t **data,
                                uint32_t *length, access_unit_t *access_unit)
{
    uint8_t *const room =
        get_frame_room(self, self->uiKeptSetsLen + *length + access_unit->uiUnitCount);
    if (room == nullptr) {
        log_missing_memory(*length);
        return false;
    }
    *length = join_kept_sets(self, *data, *length, access_unit, room);
    *data = room;
    return describe_access_unit(room, *length, access_unit);
}

// returns false when the file could not be opened.
static bool handle_picture(omx_tdmbrec_component_PrivateType *self, uint8_t *data, uint32_t length,
                           access_unit_t *access_unit, uint32_t time, mp4_mux_putstream_t *frame)
{
    if (takes_kept_sets(self, access_unit) &&
        !join_with_kept_sets(self, &data, &length, access_unit)) {
        return true;
    }
    keep_scanned_bytes(self, data, length);
    if (has_parameter_sets(access_unit) &&
        !use_parameter_sets(self, data, length, access_unit, time)) {
        return false;
    }
    if (self->bFileBegun != 0) {
        make_frame_of(self, data, length, access_unit, frame);
    } else if (access_unit->has_slice && self->uiFirstVideoPts != 0 && !has_written_frames(self)) {
        self->uiFirstVideoPts = 0; // the pictures come through the port: sound waits for them
    }
    return true;
}

// returns false when the file could not be opened.
static bool handle_access_unit(omx_tdmbrec_component_PrivateType *self, uint8_t *data,
                               uint32_t length, uint32_t time, mp4_mux_putstream_t *frame)
{
    skip_leading_zeros(&data, &length);
    access_unit_t access_unit;
    if (length > kLargestAccessUnit || !describe_access_unit(data, length, &access_unit)) {
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG,
                            "No access unit behind a start code: %u bytes dropped\n", length);
        return true;
    }
    if (has_parameter_sets(&access_unit)) {
        keep_parameter_sets(self, data, &access_unit);
    }
    frame->m_uiTimeStamp = time;
    frame->m_uiTimeStamp2 = time;
    frame->m_uiFlags = access_unit.is_idr ? uint32_t{MUX_FRAME_KEY} : 0u;
    return access_unit.uiUnitCount == 0
               ? handle_sets_alone(self, data, length, &access_unit, time)
               : handle_picture(self, data, length, &access_unit, time, frame);
}

bool handle_video_buffer(omx_tdmbrec_component_PrivateType *self, OMX_BUFFERHEADERTYPE *buffer,
                         uint32_t time, mp4_mux_putstream_t *frame)
{
    const bool is_open = handle_access_unit(self, buffer->pBuffer + buffer->nOffset,
                                            buffer->nFilledLen, time, frame);
    if (is_open) {
        note_video_time(self, time);
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
