// Finds out what kind of sound a recording has.
#include "mp4mux/mp4_mux.h"
#include "recovery/aac_frame.h"
#include "recovery/media_walk.h"

// The search tries this many frames at each of so many places without a picture.
static constexpr int32_t kTriedFrames = 64;
static constexpr int32_t kTriedPlaces = 16;

// Walks over at most kTriedFrames frames.
// in: skips_damage: else the walk ends where damage begins
// returns: the number of sound frames
static int32_t count_sounds(media_walk *walk, bool skips_damage)
{
    int32_t sounds = 0;
    for (int32_t i = 0; i < kTriedFrames; i++) {
        walked_frame frame;
        const walk_result result =
            skips_damage ? media_walk_next(walk, &frame) : media_walk_next_intact(walk, &frame);
        if (result != kWalkFrame) {
            break;
        }
        sounds += frame.type == MUX_TYPE_AUDIO ? 1 : 0;
    }
    return sounds;
}

// Tries every kind of sound at a place that begins no picture.
// in: skips_damage: else frames count only up to the first damage
// returns: whether one was found, which is then set
static bool try_sounds(media_walk *walk, const media_walk *place, bool skips_damage)
{
    int32_t most_sounds = 0;
    for (int32_t channels = 2; channels >= 1; channels--) {
        for (int32_t index = kAacFirstSamplingIndex; index <= kAacLastSamplingIndex; index++) {
            media_walk trial = *place;
            trial.channels = channels;
            trial.sampling_index = index;
            const int32_t sounds = count_sounds(&trial, skips_damage);
            if (sounds > most_sounds) {
                most_sounds = sounds;
                walk->channels = channels;
                walk->sampling_index = index;
            }
        }
    }
    return most_sounds > 0;
}

bool media_walk_find_sound(media_walk *walk)
{
    media_walk pictures = *walk; // finds pictures only
    pictures.sampling_index = 0;
    walked_frame frame = {};
    for (int32_t places = 0; places < kTriedPlaces;) {
        if (media_walk_next_intact(&pictures, &frame) == kWalkFrame) {
            continue;
        }
        if (try_sounds(walk, &pictures, false) || try_sounds(walk, &pictures, true)) {
            return true;
        }
        const bool has_more = media_walk_next(&pictures, &frame) == kWalkFrame;
        places = has_more ? places + 1 : kTriedPlaces;
    }
    walk->sampling_index = 0;
    return false;
}

int32_t sound_frame_bytes(const uint8_t *bytes, int32_t count, int32_t sampling_index,
                          int32_t channels)
{
    const aac_frame sound = read_aac_frame(bytes, count, sampling_index, nullptr);
    return sound.channels == channels ? sound.bytes : 0;
}
