#include "recovery/media_walk.h"

#include "mp4mux/mp4_mux.h"
#include "recovery/aac_frame.h"
#include "recovery/picture_units.h"

#include <algorithm>
#include <cstring>

static constexpr int64_t kChunkBytes = 1 << 16;
static constexpr int64_t kDamageBytes = 3;          // of what no unit contains
static constexpr int64_t kPlainUnitBytes = 1 << 20; // a unit that is looked for in damaged data
static constexpr int64_t kLongestLengthByte = kLongestFrameBytes >> 24; // of a length, its first
static constexpr int64_t kBoxHeaderBytes = 8;
static constexpr int64_t kLeastCutBytes = 8; // of a cut sound frame that looks like one

// Work at most: this many bytes, and this many for each byte on the way.
static constexpr int64_t kFreeWorkBytes = 2 * kLongestFrameBytes;
static constexpr int64_t kWorkPerByte = 64;

// Evidence, in points, that a place is where a frame begins. A sound frame is hardly ever found by
// chance, a picture sometimes.
static constexpr int32_t kSoundPoints = 2;
static constexpr int32_t kPicturePoints = 1;
static constexpr int32_t kEndPoints = 2;         // the media data ends after a frame
static constexpr int32_t kPointsOfReading = 2;   // after a frame that can also be read otherwise
static constexpr int32_t kPointsAfterDamage = 3; // from the first frame on

namespace {

struct picture_reading {
    int64_t bytes;
    unit_head first;      // unit
    unit_head last_slice; // the last unit with a first_mb_in_slice
    int64_t longest_unit_bytes;
    int32_t slices;
    bool has_idr;
    bool has_sps;
    bool has_pps;
    bool is_end_certain; // what follows is not the rest of the picture
};

struct frame_reading {
    walked_frame frame;
    picture_reading picture; // of a picture
};

// What is at the end of a unit.
enum unit_sequel {
    kSequelUnit,    // the next unit of the picture
    kSequelOther,   // something else
    kSequelEnd,     // the end of the media data
    kSequelUnknown, // perhaps the rest of the picture
    kSequelCut      // the rest of the picture, which is not whole
};

} // namespace

static void spend(media_walk *walk, int64_t bytes)
{
    walk->work_bytes += bytes;
}

static bool is_exhausted(const media_walk *walk)
{
    return walk->work_bytes > kFreeWorkBytes;
}

// Lets the way up to here pay for work.
static void pay(media_walk *walk, int64_t position)
{
    const int64_t way_bytes = std::max<int64_t>(position - walk->paid_position, 0);
    walk->paid_position += way_bytes;
    walk->work_bytes = std::max<int64_t>(walk->work_bytes - kWorkPerByte * way_bytes, 0);
}

// Shows bytes of the media data, fewer than count only at its end.
// returns: null when none are there
static const uint8_t *view(media_walk *walk, int64_t offset, int64_t count, int64_t *available)
{
    media_window *const window = walk->window;
    const int64_t wanted_bytes = std::min(count, walk->end - offset);
    const int64_t begin = window->begin;
    const uint8_t *const bytes = media_window_show(window, offset, wanted_bytes, available);
    if (*available < wanted_bytes) { // also a file that has become shorter
        window->has_failed = true;
        *available = 0;
        return nullptr;
    }
    spend(walk, window->begin != begin ? window->valid : 0);
    return bytes;
}

static bool is_movie_box(const uint8_t *bytes, int64_t count)
{
    static constexpr char kType[] = "moov";
    const int64_t shown_bytes = std::min(count, kBoxHeaderBytes) - 4;
    return shown_bytes > 0 && memcmp(bytes + 4, kType, static_cast<size_t>(shown_bytes)) == 0;
}

static bool is_movie_box_at(media_walk *walk, int64_t offset)
{
    int64_t available = 0;
    const uint8_t *const bytes = view(walk, offset, kBoxHeaderBytes, &available);
    return bytes != nullptr && is_movie_box(bytes, available);
}

// returns: whether a movie box and the header of its first box are there
static bool is_movie_box_in_damage(const uint8_t *bytes, int64_t count)
{
    return count >= 2 * kBoxHeaderBytes && is_movie_box(bytes, count) &&
           memcmp(bytes + kBoxHeaderBytes + 4, "mvhd", 4) == 0;
}

static bool begins_sound(const media_walk *walk, uint8_t first)
{
    // id_syn_ele, element_instance_tag of 0
    return walk->sampling_index != 0 && first >> 1 == (walk->channels == 1 ? 0 : 0x10);
}

static bool begins_length(uint8_t first)
{
    return first <= kLongestLengthByte;
}

static aac_frame try_sound(media_walk *walk, int64_t offset)
{
    int64_t available = 0;
    const uint8_t *const bytes = view(walk, offset, kAacMostFrameBytes, &available);
    if (bytes == nullptr || !begins_sound(walk, bytes[0])) {
        return {};
    }
    tried_sound *const last = &walk->last_sound;
    if (last->offset != offset || last->bytes != available ||
        last->sampling_index != walk->sampling_index) {
        *last = {.offset = offset,
                 .bytes = static_cast<int32_t>(available),
                 .sampling_index = walk->sampling_index};
        last->sound = read_aac_frame(bytes, last->bytes, last->sampling_index, nullptr);
    }
    const aac_frame sound = last->sound;
    spend(walk, sound.bits);
    return sound.channels == walk->channels ? sound : aac_frame{};
}

static bool read_sound(media_walk *walk, int64_t offset, frame_reading *reading)
{
    const aac_frame sound = try_sound(walk, offset);
    if (sound.bytes == 0) {
        return false;
    }
    reading->frame = {.type = MUX_TYPE_AUDIO, .offset = offset, .size = sound.bytes};
    return true;
}

// returns: whether the bytes can be those of a unit
static bool is_unit_intact(media_walk *walk, int64_t offset, int64_t bytes)
{
    for (int64_t done = 0; !is_exhausted(walk);) {
        int64_t available = 0;
        const uint8_t *const at =
            view(walk, offset + done, std::min(kChunkBytes, bytes - done), &available);
        if (at == nullptr || find_damage(at, available) < available) {
            return false;
        }
        spend(walk, available);
        done += available;
        if (done == bytes) {
            return at[available - 1] != 0 || walk->takes_zero_ends;
        }
        done -= kDamageBytes - 1; // it may be at the border
    }
    return false;
}

// Looks at the place after a unit.
static unit_sequel look_after_unit(media_walk *walk, const picture_reading *picture, int64_t offset,
                                   unit_head *next)
{
    int64_t available = 0;
    const uint8_t *const bytes = view(walk, offset, kUnitHeadBytes, &available);
    if (bytes == nullptr) {
        return kSequelEnd;
    }
    const bool is_head = read_unit_head(bytes, available, next);
    const bool may_be_sound = begins_sound(walk, bytes[0]);
    if (is_movie_box(bytes, available) || (may_be_sound && !begins_length(bytes[0]))) {
        return kSequelOther;
    }
    const unit_head *const last_slice =
        picture->last_slice.type != 0 ? &picture->last_slice : nullptr;
    const unit_place place = is_head ? place_unit(next, last_slice) : kUnitUnknown;
    if (place == kUnitBegins) {
        return kSequelOther;
    }
    const aac_frame sound = may_be_sound ? try_sound(walk, offset) : aac_frame{};
    if (sound.bytes != 0) {
        return kSequelOther;
    }
    if (is_head && next->unit_bytes <= walk->end - offset - kUnitLengthBytes) {
        return kSequelUnit;
    }
    if (sound.is_cut) {
        return walk->end - offset >= kLeastCutBytes ? kSequelOther : kSequelUnknown;
    }
    const bool is_rest = place == kUnitBelongs && next->unit_bytes <= kLongestFrameBytes;
    return is_rest ? kSequelCut : kSequelUnknown;
}

static void note_unit(const unit_head *head, picture_reading *picture)
{
    picture->longest_unit_bytes = std::max(picture->longest_unit_bytes, head->unit_bytes);
    picture->slices += is_slice(head->type) ? 1 : 0;
    picture->has_idr = picture->has_idr || head->type == kUnitIdrSlice;
    picture->has_sps = picture->has_sps || head->type == kUnitSps;
    picture->has_pps = picture->has_pps || head->type == kUnitPps;
    if (has_first_mb(head->type)) {
        picture->last_slice = *head;
    }
}

// returns: whether a picture that such a sequel follows is whole
static bool is_picture_whole(const media_walk *walk, const picture_reading *picture,
                             unit_sequel sequel)
{
    switch (sequel) {
    case kSequelOther:
        return picture->slices > 0;
    case kSequelEnd:
        return picture->slices > 0 && picture->slices >= walk->least_slices;
    case kSequelUnknown:
        return picture->slices > 0 && picture->slices >= walk->most_slices;
    default:
        return false;
    }
}

// in: limit_bytes: of a unit
static bool read_units(media_walk *walk, int64_t offset, int64_t limit_bytes,
                       picture_reading *picture)
{
    int64_t available = 0;
    const uint8_t *const bytes = view(walk, offset, kUnitHeadBytes, &available);
    unit_head head;
    if (bytes == nullptr || !read_unit_head(bytes, available, &head)) {
        return false;
    }
    picture->first = head;
    while (picture->bytes < kLongestFrameBytes) {
        const int64_t at = offset + picture->bytes;
        if (head.unit_bytes > std::min(limit_bytes, walk->end - at - kUnitLengthBytes) ||
            !is_unit_intact(walk, at + kUnitLengthBytes, head.unit_bytes)) {
            return false;
        }
        note_unit(&head, picture);
        picture->bytes += kUnitLengthBytes + head.unit_bytes;
        const unit_sequel sequel = look_after_unit(walk, picture, offset + picture->bytes, &head);
        if (sequel != kSequelUnit) {
            picture->is_end_certain = sequel == kSequelOther;
            return is_picture_whole(walk, picture, sequel) && picture->bytes <= kLongestFrameBytes;
        }
    }
    return false;
}

static bool read_picture(media_walk *walk, int64_t offset, int64_t limit_bytes,
                         frame_reading *reading)
{
    reading->picture = {};
    picture_reading *const picture = &reading->picture;
    if (!read_units(walk, offset, limit_bytes, picture)) {
        return false;
    }
    reading->frame = {.type = MUX_TYPE_VIDEO,
                      .is_sync = picture->has_idr,
                      .has_sets = picture->has_sps && picture->has_pps,
                      .offset = offset,
                      .size = static_cast<int32_t>(picture->bytes)};
    return true;
}

// Reads the frame at a place that looks like the begin of one.
static bool read_either(media_walk *walk, int64_t offset, int64_t limit_bytes,
                        frame_reading *reading)
{
    return read_sound(walk, offset, reading) || read_picture(walk, offset, limit_bytes, reading);
}

// returns: whether the frames that follow one another from here on have enough points
static bool is_followed(media_walk *walk, int64_t offset, int64_t limit_bytes, int32_t points)
{
    while (points > 0 && !is_exhausted(walk)) {
        frame_reading reading;
        if (offset == walk->end || is_movie_box_at(walk, offset)) {
            return points <= kEndPoints;
        }
        if (!read_either(walk, offset, limit_bytes, &reading)) {
            return false;
        }
        offset += reading.frame.size;
        points -= reading.frame.type == MUX_TYPE_AUDIO ? kSoundPoints : kPicturePoints;
    }
    return points <= 0;
}

// returns: whether the place can also be read as the begin of a picture
static bool may_be_picture(media_walk *walk, int64_t offset)
{
    int64_t available = 0;
    const uint8_t *const bytes = view(walk, offset, kUnitHeadBytes, &available);
    unit_head head;
    return bytes != nullptr && read_unit_head(bytes, available, &head) &&
           head.unit_bytes <= walk->end - offset - kUnitLengthBytes;
}

// Reads the frame at a place where the last one ended.
static bool read_frame(media_walk *walk, int64_t offset, frame_reading *reading)
{
    frame_reading sound;
    if (!read_sound(walk, offset, &sound)) {
        return read_picture(walk, offset, kLongestFrameBytes, reading);
    }
    const int64_t sound_end = offset + sound.frame.size;
    if (may_be_picture(walk, offset) &&
        !is_followed(walk, sound_end, kLongestFrameBytes, kPointsOfReading) &&
        read_picture(walk, offset, kLongestFrameBytes, reading) &&
        is_followed(walk, offset + reading->frame.size, kLongestFrameBytes, kPointsOfReading)) {
        return true;
    }
    *reading = sound;
    return true;
}

// returns: whether a picture begins as those before it did: its first units may be lost
static bool has_its_begin(const media_walk *walk, const picture_reading *picture)
{
    const unit_head *const first = &picture->first;
    const uint32_t types = walk->first_types[picture->has_idr ? 1 : 0];
    if (types != 0 && (types >> first->type & 1) == 0) {
        return false;
    }
    const unit_head no_slice = {.type = 0};
    return has_first_mb(first->type) ? first->first_mb_in_slice == 0
                                     : place_unit(first, &no_slice) == kUnitBegins;
}

// returns: whether a frame of an intact part of the media data begins here
static bool read_after_damage(media_walk *walk, int64_t offset, frame_reading *reading)
{
    const int64_t limit_bytes = std::max(kPlainUnitBytes, 4 * walk->longest_unit_bytes);
    if (!read_either(walk, offset, limit_bytes, reading)) {
        return false;
    }
    if (reading->frame.type == MUX_TYPE_VIDEO && !has_its_begin(walk, &reading->picture)) {
        return false;
    }
    return is_followed(walk, offset, limit_bytes, kPointsAfterDamage);
}

// returns: the offset of the next byte that can be the first one of a frame or a movie box, at most
//          that of the last four bytes
static int64_t find_candidate(const media_walk *walk, const uint8_t *bytes, int64_t count)
{
    int64_t at = 0;
    for (; at + 4 < count; at++) {
        const bool is_zero = (bytes[at] | bytes[at + 1] | bytes[at + 2] | bytes[at + 3]) == 0;
        if ((begins_length(bytes[at]) || begins_sound(walk, bytes[at])) && !is_zero) {
            return at;
        }
    }
    return at;
}

// Finds the first place from `offset` on from which frames follow one another.
static bool resynchronise(media_walk *walk, int64_t offset, frame_reading *reading)
{
    while (walk->end - offset > kUnitLengthBytes) {
        int64_t available = 0;
        const uint8_t *bytes = view(walk, offset, kChunkBytes, &available);
        if (bytes == nullptr) {
            return false;
        }
        const int64_t step = find_candidate(walk, bytes, available);
        offset += step;
        pay(walk, offset);
        if (step + kUnitLengthBytes >= available) {
            continue;
        }
        bytes = view(walk, offset, 2 * kBoxHeaderBytes, &available);
        if (bytes == nullptr || is_movie_box_in_damage(bytes, available)) {
            return false;
        }
        if (!is_exhausted(walk) && read_after_damage(walk, offset, reading)) {
            return true;
        }
        offset++;
    }
    return false;
}

// Learns how pictures are made.
static void learn(media_walk *walk, const picture_reading *picture, bool follows_frame)
{
    walk->longest_unit_bytes = std::max(walk->longest_unit_bytes, picture->longest_unit_bytes);
    if (follows_frame) {
        walk->first_types[picture->has_idr ? 1 : 0] |= 1U << picture->first.type;
    }
    if (follows_frame && picture->is_end_certain) {
        walk->least_slices = walk->least_slices == 0
                                 ? picture->slices
                                 : std::min(walk->least_slices, picture->slices);
        walk->most_slices = std::max(walk->most_slices, picture->slices);
    }
}

static walk_result find_next(media_walk *walk, bool skips_damage, walked_frame *frame)
{
    walk->end = std::min(walk->end, walk->window->file_bytes);
    const int64_t begin = walk->position;
    frame_reading reading;
    bool is_found = false;
    if (begin < walk->end && !is_movie_box_at(walk, begin)) {
        pay(walk, begin);
        is_found = read_frame(walk, begin, &reading) ||
                   (skips_damage && resynchronise(walk, begin + 1, &reading));
    }
    if (walk->window->has_failed) {
        return kWalkReadError;
    }
    if (!is_found) {
        *frame = {.offset = begin, .skipped_bytes = std::max<int64_t>(walk->end - begin, 0)};
        return kWalkEnd;
    }
    *frame = reading.frame;
    frame->skipped_bytes = frame->offset - begin;
    if (frame->type == MUX_TYPE_VIDEO) {
        learn(walk, &reading.picture, frame->skipped_bytes == 0);
    }
    walk->position = frame->offset + frame->size;
    return kWalkFrame;
}

walk_result media_walk_next(media_walk *walk, walked_frame *frame)
{
    return find_next(walk, true, frame);
}

walk_result media_walk_next_intact(media_walk *walk, walked_frame *frame)
{
    return find_next(walk, false, frame);
}
