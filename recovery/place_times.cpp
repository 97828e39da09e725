#include "recovery/place_times.h"

#include "mp4mux/mp4_mux.h"

#include <algorithm>
#include <cmath>

static constexpr uint32_t kFrameSamples = 1024;
static constexpr steady_rate kDefaultRate = {30, 1}; // of pictures without sounds
static constexpr int32_t kLeastPlaces = 4;           // for a fit

// A change of the lead is one that lasts: the medians on both sides of it differ. Bursts do not
// last that long.
static constexpr double kLastingMs = 2000;
static constexpr double kLeastGapMs = 400;
static constexpr int32_t kLeastSide = 3; // places in a median
static constexpr int32_t kMostSide = 128;

// A likely rate fits when, over the whole time, it differs from the measured one by this much.
static constexpr double kLeastDriftMs = 10;
static constexpr double kDeviations = 3;

namespace {

// The places that are used.
struct place_range {
    const picture_place *first;
    int32_t count;
};

// Of sound time and picture number, about their means, within the parts between changes.
struct moments {
    double square_pictures;
    double product;
    double square_ms;
    double count;
};

} // namespace

static void keep_every_second_place(place_times *times)
{
    for (int32_t i = 0; i < kPlaces / 2; i++) {
        times->places[i] = times->places[2 * i];
    }
    for (int32_t i = 0; i < times->hole_count; i++) {
        times->holes[i] = (times->holes[i] + 1) / 2;
    }
    times->place_count = kPlaces / 2;
    times->stride = std::max(2 * times->stride, 2U);
}

// Keeps the place of a picture directly after a sound: the other ones of a burst say nothing new.
static void note_place(place_times *times)
{
    const picture_place *const last = times->places + times->place_count - 1;
    if (times->place_count > 0 && times->pictures - last->picture < times->stride) {
        return;
    }
    times->places[times->place_count++] = {times->pictures, times->sounds};
    if (times->place_count == kPlaces) {
        keep_every_second_place(times);
    }
}

void place_times_note(place_times *times, int32_t type)
{
    const bool is_sound = type == MUX_TYPE_AUDIO;
    if (is_sound) {
        times->sounds++;
        times->all_sounds++;
    } else {
        if (times->follows_sound) {
            note_place(times);
        }
        times->pictures++;
    }
    times->follows_sound = is_sound;
}

void place_times_note_hole(place_times *times)
{
    if (times->hole_count < kMostGaps) {
        times->holes[times->hole_count++] = times->place_count;
    }
    times->follows_sound = false;
}

static place_range used_places(const place_times *times)
{
    int32_t count = times->place_count;
    while (count > 0 && times->places[count - 1].sounds == times->all_sounds) {
        count--; // the pictures after the last sound
    }
    return {times->places, count};
}

static double median(double *values, int32_t count)
{
    std::nth_element(values, values + count / 2, values + count);
    return values[count / 2];
}

// returns: milliseconds for each picture, little disturbed by bursts and gaps
static double measure_roughly(place_times *times, const place_range &range, double sound_ms)
{
    const int32_t lag = std::max(range.count / 16, 1);
    for (int32_t i = 0; i + lag < range.count; i++) {
        const picture_place &before = range.first[i];
        const picture_place &after = range.first[i + lag];
        times->scratch[i] =
            sound_ms * (after.sounds - before.sounds) / (after.picture - before.picture);
    }
    return median(times->scratch, range.count - lag);
}

static double lead_ms(const picture_place &place, double sound_ms, double picture_ms)
{
    return sound_ms * place.sounds - picture_ms * place.picture;
}

// returns: the median lead of the places from `from` on
static double side_lead_ms(place_times *times, const place_range &range, int32_t from,
                           int32_t count, double sound_ms, double picture_ms)
{
    for (int32_t i = 0; i < count; i++) {
        times->scratch[i] = lead_ms(range.first[from + i], sound_ms, picture_ms);
    }
    return median(times->scratch, count);
}

// returns: the place among [begin, end) to which the lead changes most, in the direction of `sign`
static int32_t find_step(const place_range &range, int32_t begin, int32_t end, double sound_ms,
                         double picture_ms, double sign)
{
    int32_t step = begin;
    double most_ms = 0;
    for (int32_t i = begin; i < end; i++) {
        const double change_ms = sign * (lead_ms(range.first[i], sound_ms, picture_ms) -
                                         lead_ms(range.first[i - 1], sound_ms, picture_ms));
        if (change_ms > most_ms) {
            most_ms = change_ms;
            step = i;
        }
    }
    return step;
}

// Finds the places at which the lead changes for good.
// returns: their number
static int32_t find_changes(place_times *times, const place_range &range, double sound_ms,
                            double picture_ms, int32_t *changes)
{
    const uint32_t pictures = range.first[range.count - 1].picture - range.first[0].picture;
    const double place_ms = std::max(picture_ms * pictures / range.count, 1.0);
    const int32_t side =
        std::clamp(static_cast<int32_t>(kLastingMs / place_ms), kLeastSide, kMostSide);
    int32_t count = 0;
    int32_t best = 0; // of a run of places about which the sides differ
    double best_ms = 0;
    for (int32_t i = side; i + side <= range.count && count < kMostGaps; i++) {
        const double change_ms = side_lead_ms(times, range, i, side, sound_ms, picture_ms) -
                                 side_lead_ms(times, range, i - side, side, sound_ms, picture_ms);
        if (std::abs(change_ms) > std::max(std::abs(best_ms), kLeastGapMs)) {
            best_ms = change_ms;
            best = i;
        }
        if (best_ms != 0 && (i >= best + side || i + side == range.count)) {
            const int32_t end = std::min(best + side / 2 + 1, range.count);
            changes[count++] = find_step(range, std::max(best - side / 2, 1), end, sound_ms,
                                         picture_ms, best_ms > 0 ? 1 : -1);
            best_ms = 0;
        }
    }
    return count;
}

// Adds the holes to the changes.
// in: changes: room for 2 * kMostGaps
// returns: their number
static int32_t add_holes(const place_times *times, const place_range &range, int32_t *changes,
                         int32_t count)
{
    for (int32_t i = 0; i < times->hole_count; i++) {
        if (times->holes[i] > 0 && times->holes[i] < range.count) {
            changes[count++] = times->holes[i];
        }
    }
    std::sort(changes, changes + count);
    return static_cast<int32_t>(std::unique(changes, changes + count) - changes);
}

// Adds the moments of the places [begin, end) about their means.
static void add_part(const place_range &range, int32_t begin, int32_t end, double sound_ms,
                     moments *sums)
{
    double mean_picture = 0;
    double mean_ms = 0;
    for (int32_t i = begin; i < end; i++) {
        mean_picture += range.first[i].picture;
        mean_ms += sound_ms * range.first[i].sounds;
    }
    mean_picture /= end - begin;
    mean_ms /= end - begin;
    for (int32_t i = begin; i < end; i++) {
        const double picture = range.first[i].picture - mean_picture;
        const double ms = sound_ms * range.first[i].sounds - mean_ms;
        sums->square_pictures += picture * picture;
        sums->product += picture * ms;
        sums->square_ms += ms * ms;
    }
    sums->count += end - begin;
}

static moments sum_parts(const place_range &range, const int32_t *changes, int32_t count,
                         double sound_ms)
{
    moments sums = {};
    int32_t begin = 0;
    for (int32_t i = 0; i <= count; i++) {
        const int32_t end = i < count ? changes[i] : range.count;
        if (end > begin) {
            add_part(range, begin, end, sound_ms, &sums);
        }
        begin = end;
    }
    return sums;
}

// out: drift_ms: between the rate and the measured one over the whole time
// returns: the likely rate that is nearest to the measured one
static steady_rate nearest_rate(const moments &sums, double picture_ms, double *drift_ms)
{
    const double length = std::sqrt(12 * sums.square_pictures / sums.count); // in pictures
    steady_rate nearest = {};
    for (const steady_rate &rate : picture_rates) {
        const double drift = std::abs(frame_ms(rate) - picture_ms) * length;
        if (nearest.num == 0 || drift < *drift_ms) {
            nearest = rate;
            *drift_ms = drift;
        }
    }
    return nearest;
}

static steady_rate choose_rate(const moments &sums)
{
    const double picture_ms = sums.product / sums.square_pictures;
    const double square_error = sums.square_ms - picture_ms * sums.product;
    const double deviation_ms = std::sqrt(std::max(square_error / sums.count, 0.0));
    double drift_ms = 0;
    const steady_rate nearest = nearest_rate(sums, picture_ms, &drift_ms);
    if (drift_ms <= kLeastDriftMs + kDeviations * deviation_ms) {
        return nearest;
    }
    const double picture_ns = std::clamp(picture_ms * 1e6, 1.0, 4e9);
    return {1000000000, static_cast<uint32_t>(picture_ns)};
}

// Finds the gaps that the changes are. A change to a lead that has been there before is the end of
// a long burst.
static void find_gaps(place_times *times, const place_range &range, const int32_t *changes,
                      int32_t count, double sound_ms)
{
    const double picture_ms = frame_ms(times->picture_rate);
    double highest_ms = 0;
    int32_t begin = 0;
    for (int32_t i = 0; i <= count; i++) {
        const int32_t end = i < count ? changes[i] : range.count;
        double mean_ms = 0;
        for (int32_t k = begin; k < end; k++) {
            mean_ms += lead_ms(range.first[k], sound_ms, picture_ms) / (end - begin);
        }
        if (i == 0) {
            highest_ms = mean_ms;
        } else if (mean_ms > highest_ms + kLeastGapMs / 2 && times->gap_count < kMostGaps) {
            times->gaps[times->gap_count++] = {
                .last_before = range.first[begin - 1].picture,
                .first_after = range.first[begin].picture,
                .middle_ms = (highest_ms + mean_ms) / 2,
                .lost_pictures = std::llround((mean_ms - highest_ms) / picture_ms)};
            highest_ms = mean_ms;
        }
        begin = end;
    }
}

// returns: false when there are too few places for a measurement
static bool measure(place_times *times, int32_t sample_rate, int32_t *changes, int32_t *count,
                    moments *sums)
{
    const place_range range = used_places(times);
    if (range.count < kLeastPlaces || sample_rate <= 0) {
        return false;
    }
    const double sound_ms = 1000.0 * kFrameSamples / sample_rate;
    const double picture_ms = measure_roughly(times, range, sound_ms);
    *count = find_changes(times, range, sound_ms, picture_ms, changes);
    *count = add_holes(times, range, changes, *count);
    *sums = sum_parts(range, changes, *count, sound_ms);
    return sums->square_pictures > 0 && sums->product > 0;
}

void place_times_fit(place_times *times, int32_t sample_rate, steady_rate known)
{
    int32_t changes[2 * kMostGaps];
    int32_t count = 0;
    moments sums;
    times->sound_rate = {static_cast<uint32_t>(std::max(sample_rate, 1)), kFrameSamples};
    times->picture_rate = known.num != 0 && known.den != 0 ? known : kDefaultRate;
    times->gap_count = 0;
    if (measure(times, sample_rate, changes, &count, &sums)) {
        if (known.num == 0 || known.den == 0) {
            times->picture_rate = choose_rate(sums);
        }
        find_gaps(times, used_places(times), changes, count, frame_ms(times->sound_rate));
    }
    place_times_rewind(times);
}

int32_t place_times_choose_rate(place_times *times, const int32_t *sample_rates, int32_t count)
{
    int32_t best = 0;
    double least_drift_ms = 0;
    for (int32_t i = 0; i < count; i++) {
        int32_t changes[2 * kMostGaps];
        int32_t change_count = 0;
        moments sums;
        if (!measure(times, sample_rates[i], changes, &change_count, &sums)) {
            break;
        }
        double drift_ms = 0;
        (void)nearest_rate(sums, sums.product / sums.square_pictures, &drift_ms);
        if (i == 0 || drift_ms + kLeastDriftMs < least_drift_ms) {
            best = i;
            least_drift_ms = drift_ms;
        }
    }
    return sample_rates[best];
}

void place_times_rewind(place_times *times)
{
    times->pictures = 0;
    times->sounds = 0;
    times->passed_gaps = 0;
    times->lost_pictures = 0;
}

// Passes a gap when the next picture is after it.
static void pass_gap(place_times *times)
{
    const picture_gap &gap = times->gaps[times->passed_gaps];
    const picture_place place = {times->pictures, times->sounds};
    const double lead = lead_ms(place, frame_ms(times->sound_rate), frame_ms(times->picture_rate));
    if (place.picture >= gap.first_after ||
        (place.picture > gap.last_before && lead > gap.middle_ms)) {
        times->lost_pictures += gap.lost_pictures;
        times->passed_gaps++;
    }
}

uint32_t place_times_next(place_times *times, int32_t type)
{
    if (type == MUX_TYPE_AUDIO) {
        return steady_time_ms(times->sound_rate, times->sounds++);
    }
    if (times->passed_gaps < times->gap_count) {
        pass_gap(times);
    }
    const int64_t frame = times->lost_pictures + times->pictures++;
    return steady_time_ms(times->picture_rate, frame);
}
