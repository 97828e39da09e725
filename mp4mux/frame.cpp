#include "mp4mux/frame.h"

#include "mp4mux/bitstream_file.h"
#include "mp4mux/box_writer.h"
#include "mp4mux/first_frame.h"
#include "mp4mux/table_record.h"

// Bytes of a movie box beyond its estimate: the longer forms of two track and media headers, and
// the runs that the close adds.
static constexpr int64_t kMovieReserveBytes = 256;

static mp4_mux_track_t *find_track(mp4_mux_t *mux, int32_t type)
{
    for (uint32_t i = 0; i < mux->m_uiTrackCount; i++) {
        mp4_mux_track_t *p_track = mux->m_pstTrack[i]; // null once the close has released it
        if (p_track != nullptr && p_track->m_iType == type) {
            return p_track;
        }
    }
    return nullptr;
}

// Bytes of the sample tables for the frames so far. Either track's share is a signed 32-bit number:
// beyond 2 GiB of tables it wraps.
static int64_t sample_table_bytes(mp4_mux_t *mux)
{
    const int64_t frame_bytes = offset_record_bytes(mux) + kSizeRecordBytes;
    const mp4_mux_track_t *video = find_track(mux, MUX_TYPE_VIDEO);
    const mp4_mux_track_t *audio = find_track(mux, MUX_TYPE_AUDIO);
    int64_t video_bytes = 0;
    int64_t audio_bytes = 0;
    if (video != nullptr) {
        // The close adds the open run and one for the last frame.
        const int64_t runs = int64_t{video->m_iSttsEntryCount} + 2;
        video_bytes = video->m_uiSampleCount * frame_bytes + runs * kRunRecordBytes +
                      int64_t{video->m_uiSyncSampleCount} * kSyncRecordBytes;
    }
    if (audio != nullptr) {
        audio_bytes = audio->m_uiSampleCount * frame_bytes;
    }
    return int64_t{static_cast<int32_t>(video_bytes)} + static_cast<int32_t>(audio_bytes);
}

static int64_t estimate_file_size(mp4_mux_t *mux)
{
    return bs_position(&mux->m_Bs) + mux->m_iMoovSizeEstimate + sample_table_bytes(mux);
}

// Refuses a frame that must not reach the file, before anything of it is written.
static int32_t check_frame(mp4_mux_t *mux, const mp4_mux_putstream_t *frame)
{
    if (mux->m_iState != kMuxStateRecording) {
        return fail(&mux->m_stLastError, MUX_ERR_INVALID, "file is not open for frames");
    }
    if (frame->m_iDataSize < 0) {
        return fail(&mux->m_stLastError, MUX_ERR_INVALID, "mp4_mux_putstream_t's size is negative");
    }
    if (frame->m_pbyData == nullptr && frame->m_iDataSize > 0) {
        return fail(&mux->m_stLastError, MUX_ERR_INVALID, "mp4_mux_putstream_t's data is NULL");
    }
    if (mux->m_b32BitOffset != 0 && bs_position(&mux->m_Bs) > UINT32_MAX) {
        return fail(&mux->m_stLastError, MUX_ERR_INVALID, "frame is beyond 32-bit chunk offsets");
    }
    // The close seeks as far as the end of the movie box.
    const bool seeks_32bit =
        mux->m_stFile.m_pfnFseek64 == nullptr || mux->m_stFile.m_pfnFtell64 == nullptr;
    if (seeks_32bit &&
        estimate_file_size(mux) + frame->m_iDataSize + kMovieReserveBytes > INT32_MAX) {
        return fail(&mux->m_stLastError, MUX_ERR_INVALID, "frame is beyond 32-bit seeks");
    }
    return 0;
}

static bool is_sync_sample(const mp4_mux_putstream_t *frame)
{
    return frame->m_iType == MUX_TYPE_VIDEO && (frame->m_uiFlags & MUX_FRAME_KEY) != 0;
}

static uint32_t ms_since_last(const mp4_mux_track_t *p_track, const mp4_mux_putstream_t *frame)
{
    return frame->m_uiTimeStamp - p_track->m_uiPrevTimeStamp;
}

// Writes the open run of equal durations if the frame ends it.
// returns: whether the run, if it ended, is stored
static bool put_ended_run(const mp4_mux_t *mux, mp4_mux_track_t *p_track,
                          const mp4_mux_putstream_t *frame)
{
    if (ms_since_last(p_track, frame) == p_track->m_uiSttsRunDeltaMs ||
        p_track->m_iSttsEntryCount == kNoRunYet) {
        return true;
    }
    return put_run(mux, p_track, p_track->m_iSttsRunCount, p_track->m_iSttsRunDelta);
}

// Counts a written frame into the open run or opens another. The time between two frames is known
// only with the second one and is the duration of the first.
static void count_duration(mp4_mux_track_t *p_track, const mp4_mux_putstream_t *frame)
{
    const uint32_t delta_ms = ms_since_last(p_track, frame);
    if (delta_ms == p_track->m_uiSttsRunDeltaMs) {
        p_track->m_iSttsRunCount++;
        return;
    }
    if (p_track->m_iSttsEntryCount != kNoRunYet) {
        p_track->m_iSttsSampleCount += p_track->m_iSttsRunCount;
    }
    // A step back in time is a negative difference in 64 bits too.
    const int64_t signed_delta_ms = static_cast<int32_t>(delta_ms);
    p_track->m_uiSttsRunDeltaMs = delta_ms;
    p_track->m_iSttsEntryCount++;
    p_track->m_iSttsRunCount = 1;
    p_track->m_iSttsRunDelta =
        static_cast<int32_t>(signed_delta_ms * p_track->m_uiTimeScale / 1000);
}

// Takes the decoder configuration from the first frame of a track that has none.
static int32_t take_configuration(mp4_mux_t *mux, mp4_mux_track_t *p_track,
                                  const mp4_mux_putstream_t *frame)
{
    if (p_track->m_uiSampleCount != 0 || p_track->m_iCodecPrivateSize != 0) {
        return 0;
    }
    if (frame->m_iType == MUX_TYPE_VIDEO && p_track->m_uiFourCC == fourcc("avc1")) {
        return take_avc_configuration(mux, p_track, frame);
    }
    if (frame->m_iType == MUX_TYPE_AUDIO && p_track->m_uiFourCC == fourcc("ac-3")) { // not reached
        return take_ac3_configuration(mux, p_track, frame);
    }
    return 0;
}

static void note_sample_size(mp4_mux_track_t *p_track, uint32_t sample_bytes)
{
    if (p_track->m_uiLastSampleSize != 0 && p_track->m_uiLastSampleSize != sample_bytes) {
        p_track->m_bVariableSampleSize = 1;
    }
    p_track->m_uiLastSampleSize = sample_bytes;
}

// Writes the frame's records, then its bytes.
// out: recorded: whether every record of the frame is stored
// returns: 0, or the error of an ended run or of the bytes
static int32_t append_frame(mp4_mux_t *mux, mp4_mux_track_t *p_track,
                            const mp4_mux_putstream_t *frame, bool *recorded)
{
    const uint64_t offset = static_cast<uint64_t>(bs_position(&mux->m_Bs));
    const bool has_offset = put_offset(mux, p_track, offset);
    const bool has_size = put_size(mux, p_track, static_cast<uint32_t>(frame->m_iDataSize));
    *recorded = has_offset && has_size;
    if (frame->m_iType == MUX_TYPE_VIDEO && !put_ended_run(mux, p_track, frame)) {
        return mux->m_stLastError.m_iCode;
    }
    if (is_sync_sample(frame) && !put_sync_sample(mux, p_track, p_track->m_uiSampleCount + 1)) {
        *recorded = false;
    }
    return mp4_mux_bs_write_bytes(&mux->m_Bs, frame->m_pbyData, frame->m_iDataSize);
}

static void count_frame(mp4_mux_t *mux, mp4_mux_track_t *p_track, const mp4_mux_putstream_t *frame)
{
    if (frame->m_iType == MUX_TYPE_VIDEO) {
        count_duration(p_track, frame);
    }
    p_track->m_uiLastTimeStamp = frame->m_uiTimeStamp;
    p_track->m_uiPrevTimeStamp = frame->m_uiTimeStamp;
    p_track->m_uiSampleCount++;
    p_track->m_uiChunkCount++;
    p_track->m_uiSyncSampleCount += is_sync_sample(frame) ? 1u : 0u;
    mux->m_ullMediaSize += static_cast<uint32_t>(frame->m_iDataSize);
}

int32_t mp4_mux_putframe(mp4_mux_t *mux, const mp4_mux_putstream_t *frame)
{
    mp4_mux_track_t *p_track = find_track(mux, frame->m_iType);
    if (p_track == nullptr) {
        return fail(&mux->m_stLastError, MUX_ERR_NO_STREAM, "stream does not exist");
    }
    int32_t result = check_frame(mux, frame);
    if (result >= 0) {
        result = take_configuration(mux, p_track, frame);
    }
    if (result < 0) {
        return result;
    }
    if (frame->m_iType == MUX_TYPE_AUDIO) {
        note_sample_size(p_track, static_cast<uint32_t>(frame->m_iDataSize));
    }
    bool recorded = false;
    result = append_frame(mux, p_track, frame, &recorded);
    if (result < 0) {
        mp4_mux_add_err_string("<mp4_mux_putframe", &mux->m_stLastError);
        return result;
    }
    if (recorded) { // otherwise its bytes belong to no sample
        count_frame(mux, p_track, frame);
    }
    mux->m_llEstimatedFileSize = estimate_file_size(mux);
    return 0;
}
