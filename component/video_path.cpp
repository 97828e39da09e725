#include "component/video_path.h"

#include "component/access_unit.h"
#include "component/component_log.h"
#include "component/mux_session.h"
#include "component/time_line.h"
#include "platform/qvr_memory.h"

#include <algorithm>
#include <cstring>

static constexpr uint32_t LARGEST_ACCESS_UNIT = INT32_MAX / 2; // with lengths it stays an int32_t

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
static bool fit_the_scan(const access_unit_t *pAccessUnit, uint32_t length)
{
    const uint32_t header = pAccessUnit->uiPictureOffset == length ? 0 : START_CODE_BYTES + 1;
    return pAccessUnit->uiSpsCount == 1 && pAccessUnit->uiPpsCount == 1 &&
           !pAccessUnit->has_short_front_codes &&
           pAccessUnit->uiPictureOffset + header <= PARAMETER_SET_SCAN_BYTES;
}

// In a file with its parameter sets in the access units, the first one has to hold them all.
static bool can_begin_file(const omx_tdmbrec_component_PrivateType *pPrivate,
                           const access_unit_t *pAccessUnit)
{
    return pPrivate->bInBandParameterSets == 0 ||
           (pAccessUnit->has_sound_sps && pAccessUnit->uiPpsCount > 0 &&
            pAccessUnit->uiUnitCount > 0);
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
    const bool is_captured = fit_the_scan(pAccessUnit, length);
    const bool can_build = pAccessUnit->uiPpsCount > 0 && pAccessUnit->uiUnitCount > 0;
    if (!pAccessUnit->has_sound_sps || !(is_captured || can_build)) {
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG,
                            "Parameter sets without a usable SPS and PPS: %u bytes dropped\n",
                            length);
        return true;
    }
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
            __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG,
                                "No memory for an access unit: %u bytes dropped\n", length);
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
    if (pAccessUnit->uiUnitCount == 0) {
        return; // parameter sets alone are no picture
    }
    uint32_t offset = pAccessUnit->uiPictureOffset;
    uint32_t unit_count = pAccessUnit->uiUnitCount;
    if (pPrivate->bInBandParameterSets != 0) {
        offset = 0;
        unit_count += pAccessUnit->uiFrontUnitCount;
    }
    make_frame(pPrivate, pData + offset, length - offset, unit_count, pAccessUnit, pFrame);
}

// returns false when the file could not be opened.
static bool handle_access_unit(omx_tdmbrec_component_PrivateType *pPrivate, uint8_t *pData,
                               uint32_t length, uint32_t uiTime, mp4_mux_putstream_t *pFrame)
{
    skip_leading_zeros(&pData, &length);
    access_unit_t access_unit;
    if (length > LARGEST_ACCESS_UNIT || !describe_access_unit(pData, length, &access_unit)) {
        __android_log_print(ANDROID_LOG_ERROR, TDMBREC_LOG_TAG,
                            "No access unit behind a start code: %u bytes dropped\n", length);
        return true;
    }
    keep_scanned_bytes(pPrivate, pData, length);
    if (has_parameter_sets(&access_unit)) {
        if (pPrivate->iMuxOpenResult != 0 && !open_file(pPrivate, &access_unit, length)) {
            return false;
        }
        if (pPrivate->iMuxOpenResult == 0 && pPrivate->uiFirstVideoPts == 0 &&
            can_begin_file(pPrivate, &access_unit)) {
            pPrivate->uiFirstVideoPts = uiTime;
        }
    }
    if (pPrivate->iMuxOpenResult == 0) {
        make_frame_of(pPrivate, pData, length, &access_unit, pFrame);
    }
    pFrame->m_uiTimeStamp = uiTime;
    pFrame->m_uiTimeStamp2 = uiTime;
    pFrame->m_uiFlags = access_unit.is_idr ? uint32_t{MUX_FRAME_KEY} : 0u;
    return true;
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
