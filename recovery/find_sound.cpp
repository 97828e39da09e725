// Finds out what kind of sound a recording has.
#include "mp4mux/mp4_mux.h"
#include "recovery/aac_frame.h"
#include "recovery/media_walk.h"

#include <algorithm>

static constexpr int64_t kChunkBytes = 1 << 16;
static constexpr int32_t kEnoughFrames = 2; // one after the other, the first one a sound

// One sampling index for each set of bands: 48000, 32000, 24000, 16000 and 8000 Hz.
static constexpr int32_t kIndexes[] = {3, 5, 6, 8, 11};

// Walks over the pictures that follow one another.
static void pass_pictures(media_walk *walk)
{
    walk->sampling_index = 0;
    walked_frame frame;
    do {
        walk->most_slices = 0; // after a picture with few slices, the rest may be a sound
    } while (media_walk_next_intact(walk, &frame) == kWalkFrame);
}

// returns: whether so many frames follow one another from walk->position, the first one a sound
static bool is_followed(media_walk *walk, int32_t frames)
{
    for (int32_t i = 0; i < frames; i++) {
        walked_frame frame;
        if (media_walk_next_intact(walk, &frame) != kWalkFrame ||
            (i == 0 && frame.type != MUX_TYPE_AUDIO)) {
            return false;
        }
    }
    return true;
}

// Tries every kind of sound at a place.
// in: frames: enough to believe it
// returns: whether the walk's sound is found, and set
static bool try_sounds(media_walk *walk, int64_t offset, const uint8_t *bytes, int32_t count,
                       int32_t frames)
{
    for (const int32_t index : kIndexes) {
        const aac_frame sound = read_aac_frame(bytes, count, index, nullptr);
        if (sound.bytes == 0) {
            continue;
        }
        media_walk trial = *walk;
        trial.position = offset;
        trial.sampling_index = index;
        trial.channels = sound.channels;
        const bool is_found = is_followed(&trial, frames);
        walk->paid_position = trial.paid_position; // one account of the work
        walk->work_bytes = trial.work_bytes;
        if (is_found) {
            walk->sampling_index = index;
            walk->channels = sound.channels;
            return true;
        }
        return false; // only one number of bands can be there
    }
    return false;
}

static bool may_begin_sound(const uint8_t *bytes, int64_t count)
{
    const bool is_zero = count >= 4 && (bytes[0] | bytes[1] | bytes[2] | bytes[3]) == 0;
    return (bytes[0] & 0xDE) == 0 && !is_zero; // id_syn_ele of 0 or 1, element_instance_tag of 0
}

// Looks for sounds from walk->position on.
static bool search_sounds(media_walk *walk)
{
    const int64_t begin = walk->position;
    const int64_t end = std::min(walk->end, walk->window->file_bytes);
    for (int64_t offset = begin; offset < end;) {
        int64_t available = 0;
        const uint8_t *bytes = media_window_show(walk->window, offset,
                                                 std::min(kChunkBytes, end - offset), &available);
        int64_t step = 0;
        while (step < available && !may_begin_sound(bytes + step, available - step)) {
            step++;
        }
        offset += step;
        if (step == available) {
            if (available == 0) {
                return false;
            }
            continue;
        }
        bytes = media_window_show(walk->window, offset,
                                  std::min<int64_t>(kAacMostFrameBytes, end - offset), &available);
        if (bytes == nullptr || try_sounds(walk, offset, bytes, static_cast<int32_t>(available),
                                           offset == begin ? 1 : kEnoughFrames)) {
            return bytes != nullptr;
        }
        offset++;
    }
    return false;
}

bool media_walk_find_sound(media_walk *walk)
{
    media_walk search = *walk;
    pass_pictures(&search);
    const bool is_found = search_sounds(&search);
    walk->sampling_index = search.sampling_index;
    walk->channels = search.channels;
    return is_found;
}

int32_t sound_frame_bytes(const uint8_t *bytes, int32_t count, int32_t sampling_index,
                          int32_t channels)
{
    const aac_frame sound = read_aac_frame(bytes, count, sampling_index, nullptr);
    return sound.channels == channels ? sound.bytes : 0;
}
