// Finds out what kind of sound a recording has.
#include "mp4mux/mp4_mux.h"
#include "recovery/aac_frame.h"
#include "recovery/media_walk.h"

#include <algorithm>

static constexpr int64_t kChunkBytes = 1 << 16;
static constexpr int64_t kHeadBytes = 8;    // more than the head of a sound frame has
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

// returns: the sampling index of the only kind of sound whose head is there; 0 for none
static int32_t index_of_head(const uint8_t *bytes, int64_t count)
{
    const int32_t bands = announced_aac_bands(bytes, static_cast<int32_t>(count));
    for (const int32_t index : kIndexes) {
        if (aac_bands_of(index) == bands) {
            return index;
        }
    }
    return 0;
}

// Tries the sound that a place can be.
// in: frames: enough to believe it
// returns: whether the walk's sound is found, and set
static bool try_sound(media_walk *walk, int64_t offset, const uint8_t *bytes, int32_t count,
                      int32_t frames)
{
    const int32_t index = index_of_head(bytes, count);
    const aac_frame sound = index != 0 ? read_aac_frame(bytes, count, index, nullptr) : aac_frame{};
    if (sound.bytes == 0) {
        return false;
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
    }
    return is_found;
}

// A look at the head is cheap; hostile data has a first byte of a sound everywhere.
static bool may_begin_sound(const uint8_t *bytes, int64_t count)
{
    const bool is_zero = count >= 4 && (bytes[0] | bytes[1] | bytes[2] | bytes[3]) == 0;
    const bool is_first = (bytes[0] & 0xDE) == 0; // id_syn_ele of 0 or 1, element_instance_tag of 0
    return is_first && !is_zero && (count < kHeadBytes || index_of_head(bytes, kHeadBytes) != 0);
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
        if (bytes == nullptr || try_sound(walk, offset, bytes, static_cast<int32_t>(available),
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
