#include "recovery/frame_stream.h"

#include <algorithm>
#include <cstring>

void frame_stream_begin(frame_stream *stream, media_window *media, const media_bounds *bounds,
                        const journal_frames *journal, media_format format, walk_notes *notes)
{
    *stream = {.media = media,
               .bounds = *bounds,
               .format = format,
               .notes = notes,
               .lesson_begin = bounds->begin,
               .last_end = bounds->begin};
    stream->walk = {.window = media,
                    .position = bounds->begin,
                    .end = bounds->begin,
                    .sampling_index = format.sampling_index,
                    .channels = format.channels,
                    .takes_zero_ends = format.takes_zero_ends};
    if (journal != nullptr) {
        stream->has_journal = true;
        stream->journal = *journal;
        stream->journal.media_end = bounds->begin;
    }
}

// Keeps the begin of the group that ends here, and of those before it, if all of it is intact.
static void note_lesson(frame_stream *stream)
{
    static constexpr int64_t kEnoughBytes = 1 << 17;
    const journal_frames *const journal = &stream->journal;
    const int64_t begin = static_cast<int64_t>(journal->group.media_begin);
    if (!journal->has_matched) {
        stream->lesson_begin = journal->frame_offset;
    } else if (begin - stream->lesson_begin > kEnoughBytes) {
        stream->lesson_begin = begin;
    }
}

// Lets the walk see frames that are known, so that it knows the pictures of this recording.
static void teach_walk(frame_stream *stream, int64_t position)
{
    walked_frame known;
    stream->walk.position = std::min(stream->lesson_begin, position);
    while (!stream->notes->is_replayed && stream->walk.position < position &&
           media_walk_next(&stream->walk, &known) == kWalkFrame) {
    }
    stream->walk.position = position;
    stream->lesson_begin = position;
}

// Continues at `position` with the next group, or with the walk up to it, or up to the end.
// returns: kStreamEnd, of the part before it
static stream_result open_next_part(frame_stream *stream, int64_t position)
{
    stream->has_group = false;
    if (stream->has_journal) {
        const group_result result = journal_frames_open_group(&stream->journal);
        if (result == kGroupReadError) {
            return kStreamReadError;
        }
        stream->has_group = result == kGroupOpened;
        stream->has_journal = stream->has_group;
    }
    // A size of the media data that the records contradict was cut itself.
    if (position > stream->bounds.end) {
        stream->bounds.end = stream->media->file_bytes;
    }
    const int64_t end = stream->has_group ? stream->journal.frame_offset : stream->bounds.end;
    stream->walk.end = std::min(end, stream->media->file_bytes);
    stream->part = stream->has_group && position == end ? kPartGroup : kPartWalk;
    if (stream->part == kPartWalk) {
        teach_walk(stream, std::min(position, stream->walk.end));
    }
    return stream->media->has_failed ? kStreamReadError : kStreamEnd;
}

// The walk also ends before a movie box.
static void end_stream(frame_stream *stream)
{
    static constexpr int64_t kHeaderBytes = 8;
    stream->part = kPartEnded;
    stream->media_end = stream->walk.end;
    const uint8_t *const bytes = show_part(stream->media, stream->walk.position, kHeaderBytes);
    if (stream->walk.position < stream->walk.end && bytes != nullptr &&
        memcmp(bytes + 4, "moov", 4) == 0) {
        stream->media_end = stream->walk.position;
    }
    stream->media_end = std::max(stream->media_end, stream->last_end);
}

// Completes a frame of either part.
static stream_result pass_frame(frame_stream *stream, stream_frame *frame)
{
    frame->skipped_bytes = frame->offset - stream->last_end;
    stream->last_end = frame->offset + frame->size;
    return kStreamFrame;
}

static stream_result pass_journaled(frame_stream *stream, const journaled_frame *journaled,
                                    stream_frame *frame)
{
    *frame = {.type = journaled->type,
              .flags = journaled->flags,
              .offset = journaled->offset,
              .time_ms = journaled->time_ms,
              .is_timed = true,
              .is_journaled = true,
              .is_lost = !journaled->is_whole};
    if (frame->is_lost) {
        return kStreamLostFrame;
    }
    frame->size = static_cast<int32_t>(journaled->bytes);
    return pass_frame(stream, frame);
}

// Walks, and notes what is found.
static walk_result find_walked(frame_stream *stream, walked_frame *walked)
{
    const walk_result result = stream->walk.position < stream->walk.end
                                   ? media_walk_next(&stream->walk, walked)
                                   : kWalkEnd;
    walk_notes_add(stream->notes, result == kWalkFrame ? walked : nullptr);
    return result;
}

// Takes what an earlier walk has noted.
static walk_result replay_walked(frame_stream *stream, walked_frame *walked)
{
    if (!walk_notes_next(stream->notes, stream->walk.position, walked)) {
        return kWalkEnd;
    }
    if (show_part(stream->media, walked->offset, walked->size) == nullptr) {
        stream->media->has_failed = true; // the file has become shorter
        return kWalkReadError;
    }
    stream->walk.position = walked->offset + walked->size;
    return kWalkFrame;
}

static stream_result walk_next(frame_stream *stream, stream_frame *frame)
{
    walked_frame walked = {};
    const walk_result result =
        stream->notes->is_replayed ? replay_walked(stream, &walked) : find_walked(stream, &walked);
    switch (result) {
    case kWalkFrame:
        *frame = {.type = walked.type,
                  .flags = walked.type == MUX_TYPE_AUDIO || walked.is_sync ? uint32_t{MUX_FRAME_KEY}
                                                                           : 0u,
                  .offset = walked.offset,
                  .size = walked.size};
        return pass_frame(stream, frame);
    case kWalkEnd:
        return kStreamEnd;
    case kWalkReadError:
        break;
    }
    return kStreamReadError;
}

// returns: kStreamEnd when another part is next
static stream_result next_of_group(frame_stream *stream, stream_frame *frame)
{
    journaled_frame journaled;
    if (journal_frames_next(&stream->journal, &journaled)) {
        return pass_journaled(stream, &journaled, frame);
    }
    note_lesson(stream);
    return open_next_part(stream, stream->journal.frame_offset);
}

// returns: kStreamEnd when another part is next
static stream_result next_of_walk(frame_stream *stream, stream_frame *frame)
{
    const stream_result result = walk_next(stream, frame);
    if (result == kStreamEnd && stream->has_group) {
        stream->part = kPartGroup;
        stream->lesson_begin = stream->journal.frame_offset;
    } else if (result == kStreamEnd) {
        end_stream(stream);
    }
    return result;
}

stream_result frame_stream_next(frame_stream *stream, stream_frame *frame)
{
    stream_result result = kStreamEnd;
    while (result == kStreamEnd && stream->part != kPartEnded) {
        switch (stream->part) {
        case kPartGroup:
            result = next_of_group(stream, frame);
            break;
        case kPartWalk:
            result = next_of_walk(stream, frame);
            break;
        default:
            result = open_next_part(stream, stream->bounds.begin);
        }
    }
    return stream->media->has_failed ? kStreamReadError : result;
}
