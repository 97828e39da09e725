#include "mp4mux/mp4_mux.h"
#include "recovery/place_times.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

struct Stream {
    steady_rate rate;
    int seconds;
    int lead_ms;       // of the sounds over the pictures
    int picture_burst; // pictures that arrive together
    int sound_burst;
    int gap_at_s; // 0: none
    int gap_pictures;
    int32_t sample_rate = 48000;
};

struct Event {
    double arrival_ms;
    int32_t type;
    uint32_t time_ms;
};

static std::vector<Event> events_of(const Stream &stream)
{
    std::vector<Event> events;
    const double picture_ms = frame_ms(stream.rate);
    const double sound_ms = 1024000.0 / stream.sample_rate;
    const int pictures = static_cast<int>(stream.seconds * 1000 / picture_ms);
    for (int i = 0; i < pictures; i++) {
        const int gap_begin = static_cast<int>(stream.gap_at_s * 1000 / picture_ms);
        if (stream.gap_at_s != 0 && i >= gap_begin && i < gap_begin + stream.gap_pictures) {
            continue;
        }
        const int last = (i / stream.picture_burst + 1) * stream.picture_burst - 1;
        events.push_back({std::max(last * picture_ms + stream.lead_ms, 0.0), MUX_TYPE_VIDEO,
                          steady_time_ms(stream.rate, i)});
    }
    for (int i = 0; i < static_cast<int>(stream.seconds * 1000 / sound_ms); i++) {
        const int last = (i / stream.sound_burst + 1) * stream.sound_burst - 1;
        events.push_back({std::max((last + 1) * sound_ms, 0.0), MUX_TYPE_AUDIO,
                          static_cast<uint32_t>(i * sound_ms)});
    }
    std::stable_sort(events.begin(), events.end(),
                     [](const Event &a, const Event &b) { return a.arrival_ms < b.arrival_ms; });
    return events;
}

static std::unique_ptr<place_times> note_all(const std::vector<Event> &events)
{
    auto times = std::make_unique<place_times>();
    for (const Event &event : events) {
        place_times_note(times.get(), event.type);
    }
    return times;
}

static uint32_t worst_error_ms(const Stream &stream)
{
    const std::vector<Event> events = events_of(stream);
    const auto times = note_all(events);
    place_times_fit(times.get(), stream.sample_rate, {});
    uint32_t worst_ms = 0;
    for (const Event &event : events) {
        const uint32_t time_ms = place_times_next(times.get(), event.type);
        worst_ms =
            std::max(worst_ms, std::max(time_ms, event.time_ms) - std::min(time_ms, event.time_ms));
    }
    return worst_ms;
}

static constexpr uint32_t kMostErrorMs = 5;

TEST(PlaceTimes, AreThoseOfASteadyProgramme)
{
    for (const steady_rate rate : picture_rates) {
        for (const int lead_ms : {0, 130, -500, 2500}) {
            for (const int sound_burst : {1, 2, 4}) {
                const Stream stream = {rate, 30, lead_ms, sound_burst, sound_burst, 0, 0};
                EXPECT_LE(worst_error_ms(stream), kMostErrorMs)
                    << frame_ms(rate) << " " << lead_ms << " " << sound_burst;
            }
        }
        EXPECT_LE(worst_error_ms({rate, 3600, 300, 1, 2, 0, 0, 44100}), kMostErrorMs);
    }
}

// Also in a recording so long that only some places are kept.
TEST(PlaceTimes, KeepATimeWithoutPictures)
{
    for (const steady_rate rate : {steady_rate{15, 1}, {25, 1}, {30000, 1001}, {30, 1}}) {
        for (const int seconds : {20, 1200}) {
            EXPECT_LE(worst_error_ms({rate, seconds, 200, 1, 1, seconds / 2, 50}), kMostErrorMs)
                << frame_ms(rate) << " " << seconds;
        }
    }
}

// The first picture after the hole is later than the ones that are left say, by less than a gap.
TEST(PlaceTimes, MeasureTheRateOnBothSidesOfAHole)
{
    for (const steady_rate rate : {steady_rate{15, 1}, {25, 1}, {30, 1}}) {
        for (const size_t lost : {3u, 6u, 12u}) {
            std::vector<Event> events = events_of({rate, 5, 0, 1, 1, 0, 0});
            const auto middle = events.begin() + static_cast<ptrdiff_t>(events.size() / 2);
            events.erase(middle, middle + static_cast<ptrdiff_t>(lost));
            place_times times = {};
            for (size_t i = 0; i < events.size(); i++) {
                if (i == (events.size() + lost) / 2) {
                    place_times_note_hole(&times);
                }
                place_times_note(&times, events[i].type);
            }
            place_times_fit(&times, 48000, {});
            EXPECT_EQ(frame_ms(times.picture_rate), frame_ms(rate)) << lost;
        }
    }
}

TEST(PlaceTimes, MeasureAnUnlikelyRate)
{
    EXPECT_LE(worst_error_ms({{27, 1}, 300, 0, 1, 1, 0, 0}), 20u);
}

TEST(PlaceTimes, TakeTheKnownRateAndTheDefault)
{
    const std::vector<Event> events = events_of({{25, 1}, 2, 0, 1, 1, 0, 0});
    const auto times = note_all(events);
    place_times_fit(times.get(), 48000, {24, 1});
    EXPECT_EQ(place_times_next(times.get(), MUX_TYPE_VIDEO), 0u);
    EXPECT_EQ(place_times_next(times.get(), MUX_TYPE_VIDEO), 41u);

    *times = {};
    place_times_fit(times.get(), 0, {});
    EXPECT_EQ(place_times_next(times.get(), MUX_TYPE_VIDEO), 0u);
    EXPECT_EQ(place_times_next(times.get(), MUX_TYPE_VIDEO), 33u);
}

TEST(PlaceTimes, FindTheSamplingRateByThePictures)
{
    for (const int32_t sample_rate : {48000, 44100}) {
        for (const steady_rate rate : {steady_rate{15, 1}, {25, 1}, {30000, 1001}, {30, 1}}) {
            const auto times = note_all(events_of({rate, 20, 300, 1, 1, 0, 0, sample_rate}));
            static constexpr int32_t kRates[] = {48000, 44100};
            EXPECT_EQ(place_times_choose_rate(times.get(), kRates, 2), sample_rate)
                << frame_ms(rate);
        }
    }
}

TEST(TimeGrid, ContinuesEverySteadyRateExactly)
{
    for (const steady_rate rate : picture_rates) {
        for (const int offset_us : {0, 300, 501, 999}) {
            const auto time_ms = [&](int frame) {
                return static_cast<uint32_t>(frame_ms(rate) * frame + offset_us / 1000.0 + 1e-7);
            };
            time_grid grid = {};
            for (int i = 0; i < 200; i++) {
                time_grid_note(&grid, time_ms(i));
            }
            for (int i = 200; i < 600; i++) {
                ASSERT_EQ(time_grid_continue(&grid, picture_rates, kPictureRates), time_ms(i))
                    << frame_ms(rate) << " " << offset_us << " " << i;
            }
        }
    }
}

TEST(TimeGrid, ContinuesAfterAGapAndAtAMeanRate)
{
    time_grid grid = {};
    const auto continue_grid = [&] {
        return time_grid_continue(&grid, picture_rates, kPictureRates);
    };
    EXPECT_EQ(continue_grid(), 0u);
    EXPECT_EQ(continue_grid(), 33u);
    for (const uint32_t time_ms : {5000u, 5040u, 5080u}) {
        time_grid_note(&grid, time_ms);
    }
    EXPECT_EQ(continue_grid(), 5120u);
    for (const uint32_t time_ms : {6000u, 6070u, 6140u}) {
        time_grid_note(&grid, time_ms);
    }
    EXPECT_EQ(continue_grid(), 6210u);
    EXPECT_EQ(grid.rate.num, 0u);
}
