#include "recovery/journal_frames.h"

#include "recovery/media_bounds.h"
#include "recovery/media_walk.h"

#include <algorithm>
#include <cstring>

static constexpr uint8_t kGroupTag[4] = {'J', 'G', 'R', 'P'};
static constexpr int64_t kMostSearchedBytes = 1 << 20; // each candidate costs a checksum
static constexpr int64_t kSumPartBytes = 1 << 16;      // a multiple of the checksum's words
static constexpr int kEnoughFrames = 8;                // to know whose journal it is
static constexpr int64_t kTellingFrames = 3;           // no other recording has as many in place

// No frame has as many zeros in a row: bytes that never reached the storage.
static constexpr int64_t kLostZeros = 16;

void journal_frames_begin(journal_frames *frames, media_window *media, media_window *journal,
                          uint64_t session, media_format format, int64_t head_bytes)
{
    *frames = {.media = media,
               .journal = journal,
               .session = session,
               .format = format,
               .position = head_bytes,
               .search_left_bytes = kMostSearchedBytes};
}

// Opens a group without looking at its place in the media data.
static journal_result_t open_group_at(journal_frames *frames, int64_t position)
{
    int64_t available = 0;
    const uint8_t *const bytes =
        media_window_show(frames->journal, position, kJournalGroupBytes, &available);
    if (bytes == nullptr) {
        return kJournalEnded;
    }
    return journal_open_group(&frames->group, bytes, static_cast<size_t>(available),
                              frames->session);
}

// Moves to the next place after a damaged group where another one may begin.
static bool search_group(journal_frames *frames)
{
    while (frames->search_left_bytes > 0) {
        int64_t available = 0;
        const int64_t from = frames->position + 1;
        const int64_t wanted = std::min<int64_t>(kJournalGroupBytes, frames->search_left_bytes + 3);
        const uint8_t *const bytes = media_window_show(frames->journal, from, wanted, &available);
        if (available < static_cast<int64_t>(sizeof(kGroupTag))) {
            return false;
        }
        const uint8_t *const end = bytes + available;
        const uint8_t *const found =
            std::search(bytes, end, kGroupTag, kGroupTag + sizeof(kGroupTag));
        const int64_t passed = found == end ? available - 3 : found - bytes + 1;
        frames->position += passed;
        frames->search_left_bytes -= passed;
        if (found != end) {
            return true;
        }
    }
    return false;
}

// returns: whether the checksum over the group's media bytes is that of the group
static bool matches_media(const journal_frames *frames)
{
    journal_group_reader_t group = frames->group;
    journal_sum_t sum = journal_sum_begin(frames->session);
    int64_t offset = static_cast<int64_t>(group.media_begin);
    journal_frame_t record;
    while (journal_next_frame(&group, &record)) {
        for (int64_t left = record.bytes; left > 0;) {
            const int64_t part_bytes = std::min(left, kSumPartBytes);
            const uint8_t *const bytes = show_part(frames->media, offset, part_bytes);
            if (bytes == nullptr) {
                return false;
            }
            journal_sum_add(&sum, bytes, static_cast<size_t>(part_bytes));
            offset += part_bytes;
            left -= part_bytes;
        }
    }
    return journal_sum_end(&sum) == group.media_sum;
}

// returns: the end of the group's frames; below 0 when no file can have them
static int64_t end_of_group(const journal_frames *frames)
{
    journal_group_reader_t group = frames->group;
    uint64_t end = group.media_begin;
    journal_frame_t record;
    while (journal_next_frame(&group, &record)) {
        end += record.bytes; // at most INT32_MAX for each of a group's bytes: no overflow
    }
    return end <= static_cast<uint64_t>(INT64_MAX) ? static_cast<int64_t>(end) : -1;
}

group_result journal_frames_open_group(journal_frames *frames)
{
    for (;;) {
        const journal_result_t result = open_group_at(frames, frames->position);
        const int64_t end = result == kJournalRead ? end_of_group(frames) : -1;
        const int64_t begin = static_cast<int64_t>(frames->group.media_begin);
        if (end >= 0 && begin >= frames->media_end) {
            frames->position += frames->group.group_bytes;
            frames->media_end = end;
            frames->frame_offset = begin;
            frames->has_matched = end <= frames->media->file_bytes && matches_media(frames);
            return frames->media->has_failed ? kGroupReadError : kGroupOpened;
        }
        if (!search_group(frames)) {
            return kGroupsEnded;
        }
    }
}

static bool is_whole_by_syntax(const journal_frames *frames, const journaled_frame *frame)
{
    if (frame->bytes == 0 || frame->bytes > kLongestFrameBytes) {
        return false;
    }
    const int32_t frame_bytes = static_cast<int32_t>(frame->bytes);
    const uint8_t *const bytes = show_part(frames->media, frame->offset, frame_bytes);
    if (bytes == nullptr) {
        return false;
    }
    if (frame->type == MUX_TYPE_VIDEO) {
        return is_whole_picture(bytes, frame_bytes, frames->format.takes_zero_ends);
    }
    return frames->format.sampling_index > 0 &&
           sound_frame_bytes(bytes, frame_bytes, frames->format.sampling_index,
                             frames->format.channels) == frame_bytes;
}

bool journal_frames_next(journal_frames *frames, journaled_frame *frame)
{
    journal_frame_t record;
    if (!journal_next_frame(&frames->group, &record)) {
        return false;
    }
    *frame = {.type = record.type,
              .flags = record.flags,
              .time_ms = record.time_ms,
              .offset = frames->frame_offset,
              .bytes = record.bytes};
    frames->frame_offset += record.bytes;
    frame->is_whole = frame->bytes <= kLongestFrameBytes &&
                      (frames->has_matched || is_whole_by_syntax(frames, frame));
    return true;
}

// returns: whether the frame's place has other bytes, not none; a frame beside lost bytes may have
//          lost a few of its own
static bool is_contradicted(const journal_frames *frames, const journaled_frame *frame)
{
    if (frame->is_whole || frame->bytes == 0 || frame->bytes > kLongestFrameBytes ||
        frame->offset + frame->bytes > frames->media->file_bytes) {
        return false;
    }
    const int64_t begin = std::max<int64_t>(frame->offset - kLostZeros, 0);
    const int64_t end =
        std::min(frame->offset + frame->bytes + kLostZeros, frames->media->file_bytes);
    const uint8_t *const bytes = show_part(frames->media, begin, end - begin);
    if (bytes == nullptr) {
        return false;
    }
    int64_t zeros = 0;
    for (int64_t i = 0; i < end - begin && zeros < kLostZeros; i++) {
        zeros = bytes[i] == 0 ? zeros + 1 : 0;
    }
    return zeros < kLostZeros;
}

// returns: whether frames are where the journal's first one is not: the records that could show it
//          are all for places after the end of the file. One frame may be the begin of the
//          journal's first one, cut between two slices.
static bool begins_otherwise(journal_frames *frames)
{
    static constexpr int kOtherFrames = 2;
    if (journal_frames_open_group(frames) != kGroupOpened) {
        return false;
    }
    media_walk walk = {.window = frames->media,
                       .position = frames->frame_offset,
                       .end = frames->media->file_bytes,
                       .sampling_index = frames->format.sampling_index,
                       .channels = frames->format.channels,
                       .takes_zero_ends = frames->format.takes_zero_ends};
    walked_frame frame = {};
    int found_frames = 0;
    while (found_frames < kOtherFrames && walk.position < walk.end &&
           media_walk_next(&walk, &frame) == kWalkFrame && frame.skipped_bytes == 0) {
        found_frames++;
    }
    return found_frames == kOtherFrames;
}

// returns: whether the journal fits, as far as the frames that are whole and those that are others
//          show
static bool is_fitting(const journal_frames *begin, int64_t whole_frames, int64_t other_frames)
{
    journal_frames frames = *begin;
    if (whole_frames + other_frames == 0) {
        return !begins_otherwise(&frames);
    }
    // Lost bytes may be those of an earlier file, in any number of frames.
    return whole_frames >= std::min(other_frames, kTellingFrames);
}

journal_fit find_journal_fit(journal_frames *frames)
{
    const journal_frames rewound = *frames;
    int64_t whole_frames = 0;
    int64_t other_frames = 0;
    bool is_known = false;
    while (!is_known && journal_frames_open_group(frames) == kGroupOpened) {
        is_known = frames->has_matched && frames->group.frames > 0;
        journaled_frame frame;
        while (!is_known && journal_frames_next(frames, &frame)) {
            whole_frames += frame.is_whole ? 1 : 0;
            other_frames += is_contradicted(frames, &frame) ? 1 : 0;
            is_known = whole_frames >= other_frames + kEnoughFrames;
        }
    }
    *frames = rewound;
    const bool fits = is_known || is_fitting(frames, whole_frames, other_frames);
    if (frames->media->has_failed) {
        return kJournalFitUnknown;
    }
    return fits ? kJournalFits : kJournalOfOtherFile;
}
