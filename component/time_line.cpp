#include "component/time_line.h"

#include "component/component_log.h"
#include "component/process_state.h"
#include "component/shared_fields.h"

#include <algorithm>
#include <cstdint>

static constexpr char kRuler[] = // 80 characters
    "################################################################################";

static uint32_t saturate_ms(uint64_t time_ms)
{
    return static_cast<uint32_t>(std::min<uint64_t>(time_ms, UINT32_MAX));
}

uint32_t add_ms(uint32_t a_ms, uint32_t b_ms)
{
    return saturate_ms(static_cast<uint64_t>(a_ms) + b_ms);
}

// ts_us >= base_us; unsigned, because the distance of two 64-bit times can take 64 bits itself.
static uint64_t distance_ms(int64_t ts_us, int64_t base_us)
{
    return (static_cast<uint64_t>(ts_us) - static_cast<uint64_t>(base_us)) / 1000;
}

static void count_rollback(uint8_t *pucCount)
{
    *pucCount = static_cast<uint8_t>(std::min(*pucCount + 1, UINT8_MAX)); // 0 means none
}

static void log_ruler(void)
{
    __android_log_print(ANDROID_LOG_INFO, TDMBREC_LOG_TAG, "%s", kRuler);
}

static void repair_audio_rollback(omx_tdmbrec_component_PrivateType *pPrivate, int64_t ts_us)
{
    count_rollback(&pPrivate->ucAudioRollbackCount);
    pPrivate->uiBackupAudioPts = pPrivate->uiLastAudioPts;
    pPrivate->llAudioBaseTime = ts_us;
    log_ruler();
    __android_log_print(ANDROID_LOG_INFO, TDMBREC_LOG_TAG, "BACKUP_AUDIO_PTS : %d\n",
                        static_cast<int>(pPrivate->uiBackupAudioPts));
    __android_log_print(ANDROID_LOG_INFO, TDMBREC_LOG_TAG, "AUDIO_ROLLBACK_COUNT : %d\n",
                        pPrivate->ucAudioRollbackCount);
    log_ruler();
}

static void repair_video_rollback(omx_tdmbrec_component_PrivateType *pPrivate, int64_t ts_us)
{
    count_rollback(&pPrivate->ucVideoRollbackCount);
    pPrivate->uiBackupVideoPts = pPrivate->uiLastVideoPts;
    pPrivate->llVideoBaseTime = ts_us;
    log_ruler();
    __android_log_print(ANDROID_LOG_INFO, TDMBREC_LOG_TAG, "BACKUP_VIDEO_PTS : %d\n",
                        static_cast<int>(pPrivate->uiBackupVideoPts));
    __android_log_print(ANDROID_LOG_INFO, TDMBREC_LOG_TAG, "VIDEO_ROLLBACK_COUNT : %d\n",
                        pPrivate->ucVideoRollbackCount);
    log_ruler();
}

static uint32_t map_audio_time(omx_tdmbrec_component_PrivateType *pPrivate, int64_t ts_us)
{
    if (pPrivate->llLastAudioTime > ts_us) {
        repair_audio_rollback(pPrivate, ts_us);
    }
    uint64_t time_ms = distance_ms(ts_us, pPrivate->llAudioBaseTime);
    if (pPrivate->ucAudioRollbackCount != 0) {
        time_ms += static_cast<uint64_t>(pPrivate->uiAudioFrameMs) + pPrivate->uiBackupAudioPts;
    }
    pPrivate->llLastAudioTime = ts_us;
    return saturate_ms(time_ms);
}

static uint32_t map_video_time(omx_tdmbrec_component_PrivateType *pPrivate, int64_t ts_us)
{
    uint64_t time_ms = distance_ms(ts_us, pPrivate->llVideoBaseTime);
    if (pPrivate->ucVideoRollbackCount != 0) {
        time_ms += static_cast<uint64_t>(pPrivate->uiVideoIntervalMs) + pPrivate->uiBackupVideoPts;
    }
    pPrivate->llLastVideoTime = ts_us;
    return saturate_ms(time_ms);
}

bool map_time_stamp(omx_tdmbrec_component_PrivateType *pPrivate, int64_t ts_us, uint32_t *puiTime)
{
    const bool is_video = pPrivate->ucBufferPort == TDMBREC_PORT_VIDEO;
    if (pPrivate->llVideoBaseTime == 0 && is_video) {
        pPrivate->llVideoBaseTime = ts_us;
        pPrivate->llAudioBaseTime = ts_us;
        *puiTime = map_video_time(pPrivate, ts_us);
        return true;
    }
    if (pPrivate->llAudioBaseTime == 0) {
        return false;
    }
    if (!is_video) {
        if (ts_us < pPrivate->llAudioBaseTime) {
            return false;
        }
        *puiTime = map_audio_time(pPrivate, ts_us);
        return true;
    }
    if (pPrivate->llLastVideoTime > ts_us) {
        repair_video_rollback(pPrivate, ts_us);
    }
    *puiTime = map_video_time(pPrivate, ts_us);
    return true;
}

void note_video_time(omx_tdmbrec_component_PrivateType *pPrivate, uint32_t uiTime)
{
    const uint32_t distance = uiTime - pPrivate->uiLastVideoPts;
    uint8_t index = load_shared(global_uc_write_index);
    if (pPrivate->ucVideoIntervalState == 0xFF) {
        // The first distance of a recording is that of its first video to itself.
        if (distance != 0) {
            pPrivate->uiVideoIntervalMs = distance;
            pPrivate->ucVideoIntervalState = 0;
        }
    } else if (distance > 2 * static_cast<uint64_t>(pPrivate->uiVideoIntervalMs)) {
        store_shared(global_ui_VIDEO_PTS[index][1], pPrivate->uiLastVideoPts);
        index = static_cast<uint8_t>((index + 1) % VIDEO_PTS_ENTRIES);
        store_shared(global_uc_write_index, index);
    }
    pPrivate->uiLastVideoPts = uiTime;
    store_shared(global_ui_VIDEO_PTS[index][0], uiTime);
}
