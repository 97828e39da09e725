#include "component/checkpoint.h"

#include "component/component_log.h"
#include "component/storage_sync.h"
#include "journal/journal.h"
#include "platform/qvr_memory.h"
#include "platform/system_properties.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

static constexpr uint32_t kLongestIntervalMs = 3600000;
static constexpr uint32_t kSamplesPerFrame = 1024;

struct tdmbrec_checkpoint_t {
    journal_group_t stGroup; // of the frames since the last checkpoint
    storage_sync_t stSync;
    uint64_t ullSession;
    uint64_t ullMediaEnd;  // file offset after the last frame
    uint32_t uiIntervalMs; // between two checkpoints
    uint32_t uiLatestMs;   // of all frames
    uint32_t uiLastMs;     // uiLatestMs at the last checkpoint
    uint32_t uiSounds;     // sound frames since the last checkpoint
    uint8_t bJournaled;    // 0: there is no journal, or it was given up
    uint8_t bFlushFailed;  // and was logged
    char szJournalPath[TDMBREC_PATH_BYTES + sizeof(TDMBREC_JOURNAL_SUFFIX)];
};

// returns: the property's value in ms, 0 for none
static uint32_t read_interval(void)
{
    char text[PROPERTY_VALUE_MAX];
    (void)property_get(TDMBREC_CHECKPOINT_PROPERTY, text, "");
    const size_t digits = strspn(text, "0123456789");
    if (digits == 0 || text[digits] != '\0') {
        return 0;
    }
    const unsigned long long value_ms = strtoull(text, nullptr, 10);
    return static_cast<uint32_t>(std::min<unsigned long long>(value_ms, kLongestIntervalMs));
}

static void log_failure(const char *what)
{
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Checkpoint: %s: %s\n", what, strerror(errno));
}

static bool write_all(int file, const uint8_t *bytes, size_t count)
{
    while (count > 0) {
        const ssize_t written = write(file, bytes, count);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        bytes += written;
        count -= static_cast<size_t>(written);
    }
    return true;
}

// The recording continues without a journal, which stays as far as it is written.
static void give_up_journal(tdmbrec_checkpoint_t *checkpoint)
{
    log_failure("the journal is given up");
    checkpoint->bJournaled = 0;
}

static uint64_t make_session_number(void)
{
    timespec now = {};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

static bool write_head(const omx_tdmbrec_component_PrivateType *self,
                       const tdmbrec_checkpoint_t *checkpoint)
{
    journal_settings_t settings = {.session = checkpoint->ullSession,
                                   .stream_flags = self->stMuxInit.m_uiStreamFlags,
                                   .options = self->stMuxInit.m_uiOptions,
                                   .input = self->stMuxInput};
    static_assert(sizeof(self->aucVideoConfig) <= sizeof(settings.video_configuration));
    static_assert(sizeof(self->szRecordingPath) <= sizeof(settings.path));
    memcpy(settings.video_configuration, self->aucVideoConfig, self->ucVideoConfigLen);
    settings.video_configuration_bytes = self->ucVideoConfigLen;
    memcpy(settings.audio_configuration, self->aucAudioSpecificConfig,
           self->uiAudioSpecificConfigLen);
    settings.audio_configuration_bytes = self->uiAudioSpecificConfigLen;
    memcpy(settings.path, self->szRecordingPath, sizeof(self->szRecordingPath));
    uint8_t head[kJournalHeadBytes];
    const uint32_t head_bytes = journal_write_head(&settings, head);
    return write_all(checkpoint->stSync.iJournal, head, head_bytes);
}

static void open_journal(const omx_tdmbrec_component_PrivateType *self,
                         tdmbrec_checkpoint_t *checkpoint)
{
    strcpy(checkpoint->szJournalPath, self->szRecordingPath);
    strcat(checkpoint->szJournalPath, TDMBREC_JOURNAL_SUFFIX);
    checkpoint->ullSession = make_session_number();
    checkpoint->stSync.iJournal =
        open(checkpoint->szJournalPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    checkpoint->bJournaled = 1;
    if (checkpoint->stSync.iJournal < 0 || !write_head(self, checkpoint)) {
        give_up_journal(checkpoint);
    }
}

static int open_directory(const char *path)
{
    char directory[TDMBREC_PATH_BYTES + 1];
    strcpy(directory, path);
    char *const name = strrchr(directory, '/');
    if (name == nullptr) {
        return -1;
    }
    name[1] = '\0';
    return open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

static int open_media(const omx_tdmbrec_component_PrivateType *self)
{
    return open(self->szRecordingPath, O_RDONLY | O_CLOEXEC);
}

// The muxer keeps its handle to itself. Another descriptor of the same file serves as well.
static void open_sync(const omx_tdmbrec_component_PrivateType *self,
                      tdmbrec_checkpoint_t *checkpoint)
{
    storage_sync_t *const sync = &checkpoint->stSync;
    sync->iMedia = open_media(self);
    sync->iDirectory = open_directory(self->szRecordingPath);
    if (sync->iMedia < 0 || !start_storage_sync(sync)) {
        log_failure("nothing is synced");
    }
}

// Brings the muxer's bytes to the file.
// returns: false when the storage refuses them: they wait for the next checkpoint
static bool flush_media(omx_tdmbrec_component_PrivateType *self, tdmbrec_checkpoint_t *checkpoint)
{
    int64_t media_end = 0;
    if (QVR_MP4_MUX(MUX_FLUSH, &self->hMux, nullptr, &media_end) < 0) {
        if (checkpoint->bFlushFailed == 0) {
            log_failure("the cached bytes cannot be written");
        }
        checkpoint->bFlushFailed = 1;
        return false;
    }
    checkpoint->ullMediaEnd = static_cast<uint64_t>(media_end);
    return true;
}

static void begin_group(tdmbrec_checkpoint_t *checkpoint)
{
    journal_begin_group(&checkpoint->stGroup, checkpoint->ullSession, checkpoint->ullMediaEnd);
}

static void write_group(tdmbrec_checkpoint_t *checkpoint)
{
    if (checkpoint->bJournaled == 0 || checkpoint->stGroup.frames == 0) {
        return;
    }
    const uint32_t group_bytes = journal_end_group(&checkpoint->stGroup);
    if (!write_all(checkpoint->stSync.iJournal, checkpoint->stGroup.bytes, group_bytes)) {
        give_up_journal(checkpoint);
    }
}

static void make_checkpoint(omx_tdmbrec_component_PrivateType *self)
{
    tdmbrec_checkpoint_t *const checkpoint = self->pCheckpoint;
    checkpoint->uiLastMs = checkpoint->uiLatestMs;
    checkpoint->uiSounds = 0;
    if (!flush_media(self, checkpoint)) {
        return;
    }
    write_group(checkpoint);
    begin_group(checkpoint);
    request_storage_sync(&checkpoint->stSync);
}

// A fifth of the interval is left to the device for the bytes that a checkpoint writes.
void begin_checkpoints(omx_tdmbrec_component_PrivateType *self)
{
    const uint32_t interval_ms = read_interval();
    if (interval_ms == 0) {
        return;
    }
    tdmbrec_checkpoint_t *const checkpoint =
        static_cast<tdmbrec_checkpoint_t *>(QVR_calloc(1, sizeof(tdmbrec_checkpoint_t)));
    if (checkpoint == nullptr || !flush_media(self, checkpoint)) {
        log_failure("none are made");
        QVR_free(checkpoint);
        return;
    }
    checkpoint->uiIntervalMs = std::max<uint32_t>(interval_ms - interval_ms / 5, 1);
    open_journal(self, checkpoint);
    open_sync(self, checkpoint);
    begin_group(checkpoint);
    request_storage_sync(&checkpoint->stSync);
    self->pCheckpoint = checkpoint;
}

// The times of the tracks may be apart, and may jump: the sound also counts by itself.
static bool is_due(const omx_tdmbrec_component_PrivateType *self)
{
    const tdmbrec_checkpoint_t *const checkpoint = self->pCheckpoint;
    const uint64_t sound_ms = uint64_t{checkpoint->uiSounds} * kSamplesPerFrame * 1000;
    const uint64_t rate = static_cast<uint32_t>(self->stMuxInput.m_iAudioSampleRate);
    return checkpoint->uiLatestMs - checkpoint->uiLastMs >= checkpoint->uiIntervalMs ||
           sound_ms >= checkpoint->uiIntervalMs * rate;
}

void note_checkpoint_frame(omx_tdmbrec_component_PrivateType *self,
                           const mp4_mux_putstream_t *frame)
{
    tdmbrec_checkpoint_t *const checkpoint = self->pCheckpoint;
    if (checkpoint == nullptr) {
        return;
    }
    const journal_frame_t record = {.type = frame->m_iType,
                                    .bytes = static_cast<uint32_t>(frame->m_iDataSize),
                                    .time_ms = frame->m_uiTimeStamp,
                                    .flags = frame->m_uiFlags};
    if (checkpoint->bJournaled != 0 &&
        !journal_add_frame(&checkpoint->stGroup, &record, frame->m_pbyData)) {
        errno = ENOSPC; // the storage has refused the group for very long
        give_up_journal(checkpoint);
    }
    checkpoint->uiSounds += frame->m_iType == MUX_TYPE_AUDIO ? 1u : 0u;
    checkpoint->uiLatestMs = std::max(checkpoint->uiLatestMs, frame->m_uiTimeStamp);
    if (is_due(self) || journal_is_nearly_full(&checkpoint->stGroup)) {
        make_checkpoint(self);
    }
}

void finish_checkpoints(omx_tdmbrec_component_PrivateType *self)
{
    tdmbrec_checkpoint_t *const checkpoint = self->pCheckpoint;
    if (checkpoint == nullptr) {
        return;
    }
    // Also after a part of the bytes: the records of those frames that got to the file.
    (void)flush_media(self, checkpoint);
    write_group(checkpoint);
    stop_storage_sync(&checkpoint->stSync);
}

static void close_descriptor(int *descriptor)
{
    if (*descriptor >= 0) {
        (void)close(*descriptor);
    }
    *descriptor = -1;
}

static bool is_media_synced(const omx_tdmbrec_component_PrivateType *self, storage_sync_t *sync)
{
    if (sync->iMedia < 0) {
        sync->iMedia = open_media(self);
    }
    return sync->iMedia >= 0 && fdatasync(sync->iMedia) == 0;
}

void end_checkpoints(omx_tdmbrec_component_PrivateType *self, bool is_closed)
{
    tdmbrec_checkpoint_t *const checkpoint = self->pCheckpoint;
    if (checkpoint == nullptr) {
        return;
    }
    storage_sync_t *const sync = &checkpoint->stSync;
    if (is_closed && sync->iJournal >= 0 && is_media_synced(self, sync)) {
        (void)unlink(checkpoint->szJournalPath);
    }
    close_descriptor(&sync->iMedia);
    close_descriptor(&sync->iJournal);
    close_descriptor(&sync->iDirectory);
    QVR_free(checkpoint);
    self->pCheckpoint = nullptr;
}
