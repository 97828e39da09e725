#include "component/time_line.h"

#include "component/component_log.h"
#include "component/losses.h"
#include "component/process_state.h"
#include "component/shared_fields.h"

#include <algorithm>
#include <cstdint>

static constexpr uint8_t kIntervalUnmeasured = 0xFF;

static constexpr char kRuler[] =
    "################################################################################";
static_assert(sizeof(kRuler) == 80 + 1);

static uint32_t saturate_ms(uint64_t time_ms)
{
    return static_cast<uint32_t>(std::min<uint64_t>(time_ms, UINT32_MAX));
}

uint32_t add_ms(uint32_t a_ms, uint32_t b_ms)
{
    return saturate_ms(static_cast<uint64_t>(a_ms) + b_ms);
}

// Unsigned: the distance of two 64-bit times can need 64 bits.
// in: ts_us: at least base_us
static uint64_t distance_ms(int64_t ts_us, int64_t base_us)
{
    return (static_cast<uint64_t>(ts_us) - static_cast<uint64_t>(base_us)) / 1000;
}

static void count_rollback(uint8_t *count)
{
    // Must not wrap: 0 means no rollback.
    *count = static_cast<uint8_t>(std::min(*count + 1, UINT8_MAX));
}

static void log_rollback(const char *kind, uint32_t backup_ms, uint8_t count)
{
    __android_log_print(ANDROID_LOG_INFO, kLogTag, "%s", kRuler);
    __android_log_print(ANDROID_LOG_INFO, kLogTag, "BACKUP_%s_PTS : %d\n", kind,
                        static_cast<int>(backup_ms));
    __android_log_print(ANDROID_LOG_INFO, kLogTag, "%s_ROLLBACK_COUNT : %d\n", kind, count);
    __android_log_print(ANDROID_LOG_INFO, kLogTag, "%s", kRuler);
}

static void repair_audio_rollback(omx_tdmbrec_component_PrivateType *self, int64_t ts_us)
{
    count_rollback(&self->ucAudioRollbackCount);
    note_loss(self, kRepairedAudioClock);
    self->uiBackupAudioPts = self->uiLastAudioPts;
    self->llAudioBaseTime = ts_us;
    log_rollback("AUDIO", self->uiBackupAudioPts, self->ucAudioRollbackCount);
}

static void repair_video_rollback(omx_tdmbrec_component_PrivateType *self, int64_t ts_us)
{
    count_rollback(&self->ucVideoRollbackCount);
    note_loss(self, kRepairedVideoClock);
    self->uiBackupVideoPts = self->uiLastVideoPts;
    self->llVideoBaseTime = ts_us;
    log_rollback("VIDEO", self->uiBackupVideoPts, self->ucVideoRollbackCount);
}

static uint32_t limit_time(omx_tdmbrec_component_PrivateType *self, uint64_t time_ms)
{
    if (time_ms > UINT32_MAX) {
        note_loss(self, kRepairedLateTime);
    }
    return saturate_ms(time_ms);
}

static uint32_t map_audio_time(omx_tdmbrec_component_PrivateType *self, int64_t ts_us)
{
    if (self->llLastAudioTime > ts_us) {
        repair_audio_rollback(self, ts_us);
    }
    uint64_t time_ms = distance_ms(ts_us, self->llAudioBaseTime);
    if (self->ucAudioRollbackCount != 0) {
        time_ms += static_cast<uint64_t>(self->uiAudioFrameMs) + self->uiBackupAudioPts;
    }
    self->llLastAudioTime = ts_us;
    return limit_time(self, time_ms);
}

static uint32_t map_video_time(omx_tdmbrec_component_PrivateType *self, int64_t ts_us)
{
    uint64_t time_ms = distance_ms(ts_us, self->llVideoBaseTime);
    if (self->ucVideoRollbackCount != 0) {
        time_ms += static_cast<uint64_t>(self->uiVideoIntervalMs) + self->uiBackupVideoPts;
    }
    self->llLastVideoTime = ts_us;
    return limit_time(self, time_ms);
}

bool map_time_stamp(omx_tdmbrec_component_PrivateType *self, int64_t ts_us, uint32_t *time_ms)
{
    const bool is_video = self->ucBufferPort == TDMBREC_PORT_VIDEO;
    if (self->llVideoBaseTime == 0 && is_video) {
        self->llVideoBaseTime = ts_us;
        self->llAudioBaseTime = ts_us;
        *time_ms = map_video_time(self, ts_us);
        return true;
    }
    if (self->llAudioBaseTime == 0) {
        note_loss(self, kLostSoundBeforePicture);
        return false;
    }
    if (!is_video) {
        if (ts_us < self->llAudioBaseTime) {
            note_loss(self, kLostSoundBeforeTimeBase);
            return false;
        }
        *time_ms = map_audio_time(self, ts_us);
        return true;
    }
    if (self->llLastVideoTime > ts_us) {
        repair_video_rollback(self, ts_us);
    }
    *time_ms = map_video_time(self, ts_us);
    return true;
}

void note_video_time(omx_tdmbrec_component_PrivateType *self, uint32_t time_ms)
{
    const uint32_t interval_ms = time_ms - self->uiLastVideoPts;
    uint8_t index = load_shared(global_uc_write_index);
    if (self->ucVideoIntervalState == kIntervalUnmeasured) {
        // 0 at the first frame of a recording.
        if (interval_ms != 0) {
            self->uiVideoIntervalMs = interval_ms;
            self->ucVideoIntervalState = 0;
        }
    } else if (interval_ms > 2 * static_cast<uint64_t>(self->uiVideoIntervalMs)) {
        store_shared(global_ui_VIDEO_PTS[index][TDMBREC_SEGMENT_END], self->uiLastVideoPts);
        index = static_cast<uint8_t>((index + 1) % TDMBREC_VIDEO_SEGMENTS);
        store_shared(global_uc_write_index, index);
    }
    self->uiLastVideoPts = time_ms;
    store_shared(global_ui_VIDEO_PTS[index][TDMBREC_SEGMENT_LATEST], time_ms);
}

void reset_time_line(omx_tdmbrec_component_PrivateType *self)
{
    self->llAudioBaseTime = 0;
    self->llVideoBaseTime = 0;
    self->llLastAudioTime = 0;
    self->llLastVideoTime = 0;
    self->ucAudioRollbackCount = 0;
    self->ucVideoRollbackCount = 0;
    self->uiBackupAudioPts = 0;
    self->uiBackupVideoPts = 0;
    self->ucVideoIntervalState = kIntervalUnmeasured;
    self->uiVideoIntervalMs = 0;
    self->uiLastVideoPts = 0;
}
