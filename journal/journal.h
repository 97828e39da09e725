// The journal of a recording: a head with the settings that its frames were muxed with, then groups
// of records, one record for each frame. With it, the frames of a file without a movie box are
// muxed again to the same bytes. This unit only makes and reads bytes; it allocates nothing.
//
// The layout is described in docs/file-format.md. All numbers are big-endian.
#ifndef JOURNAL_JOURNAL_H
#define JOURNAL_JOURNAL_H

#include "mp4mux/mp4_mux.h"

#include <cstddef>
#include <cstdint>

inline constexpr uint16_t kJournalVersion = 1;
inline constexpr uint32_t kJournalPathBytes = 256;         // most of a path
inline constexpr uint32_t kJournalConfigurationBytes = 64; // most of either decoder configuration
inline constexpr uint32_t kJournalHeadBytes = 512;         // most of a head
inline constexpr uint32_t kJournalGroupHeaderBytes = 24;
inline constexpr uint32_t kJournalGroupBytes = 16384; // most of a group, all included
inline constexpr uint32_t kJournalRecordBytes = 10;   // most of a record
inline constexpr uint32_t kJournalSumBytes = 4;       // at the end of a head and of a group

// The settings of a recording: what the muxer was opened with.
struct journal_settings_t {
    uint64_t session; // a number that no other journal at this place is likely to have
    uint32_t stream_flags;
    uint32_t options;
    // Without pointers to boxes, brands and configurations, which are below.
    mp4_mux_input_t input;
    uint8_t video_configuration[kJournalConfigurationBytes]; // empty: in the access units
    uint32_t video_configuration_bytes;
    uint8_t audio_configuration[kJournalConfigurationBytes];
    uint32_t audio_configuration_bytes;
    char path[kJournalPathBytes]; // of the recording, terminated
};

// One frame.
struct journal_frame_t {
    int32_t type;   // MUX_TYPE_…
    uint32_t bytes; // at most INT32_MAX
    uint32_t time_ms;
    uint32_t flags; // MUX_FRAME_…
};

// A checksum over bytes that arrive in parts. Each part is a sequence of little-endian
// 32-bit numbers, the last one completed with zeros.
struct journal_sum_t {
    uint32_t first;
    uint32_t second;
};
[[nodiscard]] journal_sum_t journal_sum_begin(uint64_t session);
void journal_sum_add(journal_sum_t *sum, const void *bytes, size_t count);
[[nodiscard]] uint32_t journal_sum_end(const journal_sum_t *sum);

// Writes a head.
// in: a configuration that is too long counts as empty, a path is cut
// out: head: kJournalHeadBytes
// returns: the head's bytes
[[nodiscard]] uint32_t journal_write_head(const journal_settings_t *settings, uint8_t *head);

enum journal_result_t {
    kJournalRead,
    kJournalEnded,       // nothing, or only the begin of it, is there
    kJournalDamaged,     // not a journal, or its checksum differs
    kJournalOtherVersion // a version that this unit does not read
};

// Reads a head.
// in: head: count bytes, all of the journal or its first kJournalHeadBytes
// out: settings, head_bytes, version: for kJournalRead; the version also for kJournalOtherVersion
[[nodiscard]] journal_result_t journal_read_head(const uint8_t *head, size_t count,
                                                 journal_settings_t *settings, uint32_t *head_bytes,
                                                 uint16_t *version);

// A group that is being written. The caller provides its memory.
struct journal_group_t {
    uint8_t bytes[kJournalGroupBytes];
    uint32_t used_bytes;
    uint32_t frames;
    uint64_t session;
    uint64_t media_begin;      // file offset of the first frame
    journal_sum_t media_sum;   // of the frames' bytes, each a part
    uint32_t last_ms[2];       // of the last frame of either track
    uint32_t last_delta_ms[2]; // and its distance from the one before it
};

// Begins an empty group.
void journal_begin_group(journal_group_t *group, uint64_t session, uint64_t media_begin);

// Adds a frame, whose bytes follow those of the last one in the file.
// in: data: frame->bytes
// returns: false, with nothing added, when the group is full
[[nodiscard]] bool journal_add_frame(journal_group_t *group, const journal_frame_t *frame,
                                     const void *data);

// returns: whether a frame more may be refused
[[nodiscard]] inline bool journal_is_nearly_full(const journal_group_t *group)
{
    return group->used_bytes + 2 * kJournalRecordBytes + kJournalSumBytes > kJournalGroupBytes;
}

// Completes the group.
// returns: the number of bytes to write, from group->bytes
[[nodiscard]] uint32_t journal_end_group(journal_group_t *group);

// A group that is being read.
struct journal_group_reader_t {
    const uint8_t *bytes; // the whole group
    uint32_t group_bytes;
    uint32_t frames; // in all
    uint64_t session;
    uint64_t media_begin;
    uint32_t media_sum;
    uint32_t read_bytes;
    uint32_t read_frames;
    uint32_t last_ms[2];
    uint32_t last_delta_ms[2];
};

// Opens the group at the begin of `bytes` and checks its length, counts and checksum.
// in: bytes: count bytes, the rest of the journal or kJournalGroupBytes of it; they are not copied
// out: reader: for kJournalRead
[[nodiscard]] journal_result_t journal_open_group(journal_group_reader_t *reader,
                                                  const uint8_t *bytes, size_t count,
                                                  uint64_t session);

// Reads the next frame.
// returns: false after the last one
[[nodiscard]] bool journal_next_frame(journal_group_reader_t *reader, journal_frame_t *frame);

#endif // JOURNAL_JOURNAL_H
