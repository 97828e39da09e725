// The records of the scratch tables.
#ifndef MP4MUX_TABLE_RECORD_H
#define MP4MUX_TABLE_RECORD_H

#include "mp4mux/mux_context.h"

#include <cstdint>

// Write a track's next record, the one that its counters point at: m_uiSampleCount for offsets and
// sizes, m_uiSyncSampleCount, m_iSttsEntryCount. Whatever a frame that failed has left there is
// overwritten, so that record n belongs to sample n also when the caller goes on after a failure.
//
// A write that fails once is tried again; the record is then stored and the failure recorded.
//
// returns  whether the record is stored as a whole; a failure is in the error record
[[nodiscard]] bool put_offset(const mp4_mux_t *mux, mp4_mux_track_t *p_track, uint64_t offset);
[[nodiscard]] bool put_size(const mp4_mux_t *mux, mp4_mux_track_t *p_track, uint32_t size);
[[nodiscard]] bool put_sync_sample(const mp4_mux_t *mux, mp4_mux_track_t *p_track, uint32_t number);
[[nodiscard]] bool put_run(const mp4_mux_t *mux, mp4_mux_track_t *p_track, int32_t samples,
                           int32_t ticks);

#endif // MP4MUX_TABLE_RECORD_H
