// The records of the scratch tables, which are those of the boxes that the close makes of them.
#ifndef MP4MUX_TABLE_RECORD_H
#define MP4MUX_TABLE_RECORD_H

#include "mp4mux/mux_context.h"

#include <cstdint>

// Bytes of a table box before its records; with an append callback a scratch table begins with as
// many zero bytes.
inline constexpr int32_t kTableHeaderBytes = 16;
inline constexpr int32_t kSizeTableHeaderBytes = 20; // stsz has one field more

inline constexpr int32_t kSizeRecordBytes = 4;
inline constexpr int32_t kSyncRecordBytes = 4;
inline constexpr int32_t kRunRecordBytes = 8; // sample count and duration

// returns: the bytes of a chunk offset in the file's tables
[[nodiscard]] inline int32_t offset_record_bytes(const mp4_mux_t *mux)
{
    return mux->m_b32BitOffset != 0 ? 4 : 8;
}

// Write a track's next record, at the index that its counters give: m_uiSampleCount for offsets and
// sizes, m_uiSyncSampleCount, m_iSttsEntryCount. This overwrites the record of a frame that failed,
// so that record n belongs to sample n also when the caller continues after a failure.
//
// A write that fails once is tried again; the record is then stored and the failure recorded.
//
// returns: whether the record is stored as a whole; a failure is in the error record
[[nodiscard]] bool put_offset(const mp4_mux_t *mux, mp4_mux_track_t *p_track, uint64_t offset);
[[nodiscard]] bool put_size(const mp4_mux_t *mux, mp4_mux_track_t *p_track, uint32_t sample_bytes);
[[nodiscard]] bool put_sync_sample(const mp4_mux_t *mux, mp4_mux_track_t *p_track, uint32_t number);
[[nodiscard]] bool put_run(const mp4_mux_t *mux, mp4_mux_track_t *p_track, int32_t samples,
                           int32_t ticks);

#endif // MP4MUX_TABLE_RECORD_H
