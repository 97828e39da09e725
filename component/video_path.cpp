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
static void skip_leading_zeros(uint8_t **ppData, uint32_t *pLength)
{
    while (*pLength > START_CODE_BYTES && (*ppData)[0] == 0 && (*ppData)[1] == 0 &&
           (*ppData)[2] == 0 && (*ppData)[3] == 0) {
        (*ppData)++;
        (*pLength)--;
    }
}

static bool has_parameter_sets(const access_unit_t *pAccessUnit)
{
    return pAccessUnit->uiFrontUnitCount > 0;
}

// True when the parameter sets in front are one SPS and one PPS within what the scan reads; the
// header of the unit behind them, if there is one, has to lie there too.
static bool fit_the_scan(const access_unit_t *pAccessUnit)
{
    const uint32_t header = pAccessUnit->uiUnitCount == 0 ? 0 : START_CODE_BYTES + 1;
    return pAccessUnit->uiSpsCount == 1 && pAccessUnit->uiPpsCount == 1 &&
           !pAccessUnit->has_short_front_codes &&
           pAccessUnit->uiPictureOffset + header <= PARAMETER_SET_SCAN_BYTES;
}

// While nothing is captured, every byte that the scan reads is kept.
static void keep_scanned_bytes(omx_tdmbrec_component_PrivateType *pPrivate, const uint8_t *pData,
                               uint32_t length)
{
    if (pPrivate->ucVideoConfigLen == 0) {
        memcpy(pPrivate->aucVideoConfig, pData,
               std::min<uint32_t>(length, PARAMETER_SET_SCAN_BYTES));
    }
}

// Opens the file with the parameter sets of this buffer: as the decoder configuration where they
// were captured, else within the access units, from which the muxer builds the configuration.
// returns false when there is a file to open and it cannot be opened.
static bool open_file(omx_tdmbrec_component_PrivateType *pPrivate, const access_unit_t *pAccessUnit,
                      uint32_t length)
{
    if (!has_both_kinds(pAccessUnit)) {
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG,
                            "Parameter sets without a usable SPS and PPS: %u bytes dropped\n",
                            length);
        return true;
    }
    const bool is_captured = fit_the_scan(pAccessUnit);
    pPrivate->bInBandParameterSets = is_captured ? 0 : 1;
    pPrivate->ucVideoConfigLen =
        is_captured ? static_cast<uint8_t>(pAccessUnit->uiPictureOffset) : uint8_t{0};
    return omx_tdmbrec_mp4_mux_Init(pPrivate) == OMX_ErrorNone;
}

// Room for an access unit that does not fit its own buffer; kept until the recording ends.
static uint8_t *get_frame_room(omx_tdmbrec_component_PrivateType *pPrivate, uint32_t bytes)
{
    if (pPrivate->uiVideoFrameSize < bytes) {
        QVR_free(pPrivate->pucVideoFrame);
        pPrivate->uiVideoFrameSize = std::max<uint32_t>(bytes, TDMBREC_PORT_BUFFER_BYTES);
        pPrivate->pucVideoFrame = static_cast<uint8_t *>(QVR_malloc(pPrivate->uiVideoFrameSize));
        if (pPrivate->pucVideoFrame == nullptr) {
            pPrivate->uiVideoFrameSize = 0;
        }
    }
    return pPrivate->pucVideoFrame;
}

static void log_missing_memory(uint32_t length)
{
    __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG,
                        "No memory for an access unit: %u bytes dropped\n", length);
}

// Gives the units of pData, which begin with a start code, their lengths.
static void make_frame(omx_tdmbrec_component_PrivateType *pPrivate, uint8_t *pData, uint32_t length,
                       uint32_t unit_count, const access_unit_t *pAccessUnit,
                       mp4_mux_putstream_t *pFrame)
{
    uint8_t *pOut = pData;
    uint32_t frame_bytes = length;
    if (unit_count == 1 && !pAccessUnit->has_short_start_codes && !pAccessUnit->has_empty_units) {
        write_be32(pData, length - START_CODE_BYTES);
    } else {
        if (pAccessUnit->has_short_start_codes) {
            pOut = get_frame_room(pPrivate, length + unit_count);
        }
        if (pOut == nullptr) {
            log_missing_memory(length);
            return;
        }
        frame_bytes = prefix_lengths(pData, length, pOut);
    }
    pFrame->m_pbyData = pOut;
    pFrame->m_iDataSize = static_cast<int32_t>(frame_bytes);
    pFrame->m_iType = MUX_TYPE_VIDEO;
}

static void make_frame_of(omx_tdmbrec_component_PrivateType *pPrivate, uint8_t *pData,
                          uint32_t length, const access_unit_t *pAccessUnit,
                          mp4_mux_putstream_t *pFrame)
{
    uint32_t offset = pAccessUnit->uiPictureOffset;
    uint32_t unit_count = pAccessUnit->uiUnitCount;
    if (pPrivate->bInBandParameterSets != 0) {
        offset = 0;
        unit_count += pAccessUnit->uiFrontUnitCount;
    }
    make_frame(pPrivate, pData + offset, length - offset, unit_count, pAccessUnit, pFrame);
}

// Parameter sets without a picture. One of each kind within what the scan reads open the file: that
// is enough for frames that come through the FIFOs, and for sound.
// returns false when the file could not be opened.
static bool handle_sets_alone(omx_tdmbrec_component_PrivateType *pPrivate, const uint8_t *pData,
                              uint32_t length, const access_unit_t *pAccessUnit, uint32_t uiTime)
{
    if (pPrivate->iMuxOpenResult != 0 && has_both_kinds(pAccessUnit) && fit_the_scan(pAccessUnit)) {
        keep_scanned_bytes(pPrivate, pData, length);
        if (!open_file(pPrivate, pAccessUnit, length)) {
            return false;
        }
        pPrivate->bOpenedBySetsAlone = 1;
    }
    if (pPrivate->iMuxOpenResult == 0 && pPrivate->bInBandParameterSets == 0 &&
        pPrivate->uiFirstVideoPts == 0) {
        pPrivate->uiFirstVideoPts = uiTime;
    }
    return true;
}

// Makes the picture the first one of the file.
static void begin_file(omx_tdmbrec_component_PrivateType *pPrivate, const uint8_t *pData,
                       const access_unit_t *pAccessUnit, uint32_t uiTime)
{
    if (pPrivate->uiFirstVideoPts == 0 || !has_written_frames(pPrivate)) {
        pPrivate->uiFirstVideoPts = uiTime;
    }
    pPrivate->bFileBegun = 1;
    // Parameter sets alone opened the file and others have come since: it carries these as well.
    if (pPrivate->bOpenedBySetsAlone != 0 && pPrivate->bInBandParameterSets == 0 &&
        (pAccessUnit->uiPictureOffset != pPrivate->ucVideoConfigLen ||
         memcmp(pData, pPrivate->aucVideoConfig, pPrivate->ucVideoConfigLen) != 0)) {
        pPrivate->bInBandParameterSets = 1;
    }
}

// returns false when the file could not be opened.
static bool use_parameter_sets(omx_tdmbrec_component_PrivateType *pPrivate, const uint8_t *pData,
                               uint32_t length, const access_unit_t *pAccessUnit, uint32_t uiTime)
{
    if (pPrivate->iMuxOpenResult != 0 && !open_file(pPrivate, pAccessUnit, length)) {
        return false;
    }
    if (pPrivate->iMuxOpenResult == 0 && pPrivate->bFileBegun == 0 && uiTime != 0 &&
        (pPrivate->bInBandParameterSets == 0 || has_both_kinds(pAccessUnit))) {
        begin_file(pPrivate, pData, pAccessUnit, uiTime);
    }
    if (pPrivate->bFileBegun != 0) {
        forget_kept_sets(pPrivate);
    }
    return true;
}

// Puts the kept parameter sets in front of the picture, in the room for frames.
// returns false without memory.
static bool join_with_kept_sets(omx_tdmbrec_component_PrivateType *pPrivate, uint8_t **ppData,
                                uint32_t *pLength, access_unit_t *pAccessUnit)
{
    uint8_t *const pRoom =
        get_frame_room(pPrivate, pPrivate->uiKeptSetsLen + *pLength + pAccessUnit->uiUnitCount);
    if (pRoom == nullptr) {
        log_missing_memory(*pLength);
        return false;
    }
    *pLength = join_kept_sets(pPrivate, *ppData, *pLength, pAccessUnit, pRoom);
    *ppData = pRoom;
    return describe_access_unit(pRoom, *pLength, pAccessUnit);
}

// returns false when the file could not be opened.
static bool handle_picture(omx_tdmbrec_component_PrivateType *pPrivate, uint8_t *pData,
                           uint32_t length, access_unit_t *pAccessUnit, uint32_t uiTime,
                           mp4_mux_putstream_t *pFrame)
{
    if (takes_kept_sets(pPrivate, pAccessUnit) &&
        !join_with_kept_sets(pPrivate, &pData, &length, pAccessUnit)) {
        return true;
    }
    keep_scanned_bytes(pPrivate, pData, length);
    if (has_parameter_sets(pAccessUnit) &&
        !use_parameter_sets(pPrivate, pData, length, pAccessUnit, uiTime)) {
        return false;
    }
    if (pPrivate->bFileBegun != 0) {
        make_frame_of(pPrivate, pData, length, pAccessUnit, pFrame);
    } else if (pAccessUnit->has_slice && pPrivate->uiFirstVideoPts != 0 &&
               !has_written_frames(pPrivate)) {
        pPrivate->uiFirstVideoPts = 0; // the pictures come through the port: sound waits for them
    }
    return true;
}

// returns false when the file could not be opened.
static bool handle_access_unit(omx_tdmbrec_component_PrivateType *pPrivate, uint8_t *pData,
                               uint32_t length, uint32_t uiTime, mp4_mux_putstream_t *pFrame)
{
    skip_leading_zeros(&pData, &length);
    access_unit_t access_unit;
    if (length > kLargestAccessUnit || !describe_access_unit(pData, length, &access_unit)) {
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG,
                            "No access unit behind a start code: %u bytes dropped\n", length);
        return true;
    }
    if (has_parameter_sets(&access_unit)) {
        keep_parameter_sets(pPrivate, pData, &access_unit);
    }
    pFrame->m_uiTimeStamp = uiTime;
    pFrame->m_uiTimeStamp2 = uiTime;
    pFrame->m_uiFlags = access_unit.is_idr ? uint32_t{MUX_FRAME_KEY} : 0u;
    return access_unit.uiUnitCount == 0
               ? handle_sets_alone(pPrivate, pData, length, &access_unit, uiTime)
               : handle_picture(pPrivate, pData, length, &access_unit, uiTime, pFrame);
}

bool handle_video_buffer(omx_tdmbrec_component_PrivateType *pPrivate, OMX_BUFFERHEADERTYPE *pBuffer,
                         uint32_t uiTime, mp4_mux_putstream_t *pFrame)
{
    const bool is_open = handle_access_unit(pPrivate, pBuffer->pBuffer + pBuffer->nOffset,
                                            pBuffer->nFilledLen, uiTime, pFrame);
    if (is_open) {
        note_video_time(pPrivate, uiTime);
    }
    pBuffer->nFilledLen = 0;
    return is_open;
}
