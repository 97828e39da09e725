// What the buffer thread spends in each buffer, and how a recording begins, on a storage as fast as
// memory and on slower ones, with and without checkpoints.
//
// RECORDER_BENCH=whole in the environment measures more storages, longer recordings and more
// starts.
#include "bench/programme_session.h"
#include "bench/slow_storage.h"
#include "component/tdmbrec_interface.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>

using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

static constexpr uint32_t kLoopsPerMinute = 6; // of the sample programme

// in: share: of the values that are not greater than the one returned
static double quantile(std::vector<int64_t> values, double share)
{
    const double rank = std::ceil(share * static_cast<double>(values.size()));
    const auto at = values.begin() + static_cast<ptrdiff_t>(rank) - 1;
    std::nth_element(values.begin(), at, values.end());
    return static_cast<double>(*at);
}

// To empty a large file takes longer than to make one: the next recording makes its file.
static void check_and_remove(benchmark::State &state, size_t pictures, size_t sounds)
{
    check(state, has_frames(pictures, sounds), "the file lacks frames of buffers that came back");
    std::filesystem::remove(kOutput);
}

// Keeps the least value of all runs, without what the machine added to one.
static void count_least(benchmark::State &state, const char *name, double value)
{
    const auto counter = state.counters.find(name);
    const double before = counter == state.counters.end() ? HUGE_VAL : counter->second.value;
    state.counters[name] = std::min(before, value);
}

// Once a minute the storage stalls with the first write after the minute's first ten seconds.
// returns: how often it did
static uint32_t send_minutes(il_session &session, uint32_t minutes, milliseconds stall)
{
    uint32_t stalls = 0;
    for (uint32_t minute = 0; minute < minutes; minute++) {
        const uint32_t first_loop = minute * kLoopsPerMinute;
        send_paced_programme(session, 1, first_loop);
        storage_stall_next(kStallOfAll, stall);
        send_paced_programme(session, kLoopsPerMinute - 1, first_loop + 1);
        stalls += storage_stalled_call().begin != steady::time_point() ? 1u : 0u;
    }
    return stalls;
}

// range: bytes per second of the storage, 0 for as fast as memory; its stalls in ms, 0 for none;
// interval of the checkpoints in ms
static void handle_buffers(benchmark::State &state)
{
    const uint32_t minutes = runs_whole() ? 3 : 1;
    const size_t pictures = minutes * kLoopsPerMinute * sample_programme().access_units.size();
    const milliseconds stall(state.range(1));
    use_checkpoints(state.range(2));
    for (auto _ : state) {
        il_session_ptr session = il_session_open();
        begin_recording(*session);
        hand_in(*session);
        storage_begin(static_cast<uint64_t>(state.range(0)));
        const uint32_t stalls = send_minutes(*session, minutes, stall);
        check(state, stalls == (stall.count() > 0 ? minutes : 0), "a stall met no write");
        check(state, end_recording(*session), "the recording did not end as it should");
        const storage_figures figures = storage_end();
        il_session_close(std::move(session));
        check_and_remove(state, pictures, count_pcm_buffers(pictures));

        const std::vector<int64_t> &video_ns = figures.buffer_ns[TDMBREC_PORT_VIDEO];
        std::vector<int64_t> all_ns = figures.buffer_ns[TDMBREC_PORT_AUDIO];
        count_least(state, "picture_ns", quantile(video_ns, 0.5));
        count_least(state, "sound_ns", quantile(all_ns, 0.5));
        all_ns.insert(all_ns.end(), video_ns.begin(), video_ns.end());
        count_least(state, "nearly_all_ns", quantile(all_ns, 0.999));
        count_least(state, "longest_ns", quantile(all_ns, 1));
    }
}

// The times of the begins of many recordings.
struct begin_times {
    std::vector<int64_t> request_ns;     // the calls that set the path and the rate, and the start
    std::vector<int64_t> recorded_ns;    // from the request until the first picture is in the cache
    std::vector<int64_t> picture_ns;     // from handing it in, with its parameter sets, until then
    std::vector<int64_t> in_callback_ns; // of this, what the buffer thread spent in it
};

static void begin_once(benchmark::State &state, il_session &session, begin_times &times)
{
    const Bytes &first_unit = sample_programme().access_units[0];
    storage_begin(static_cast<uint64_t>(state.range(0)));
    const steady::time_point request = steady::now();
    begin_recording(session);
    const steady::time_point begun = steady::now();
    hand_in(session);
    il_session_send(session, TDMBREC_PORT_VIDEO, first_unit, video_time_us(0), 0);
    const steady::time_point picture = steady::now();
    hand_in(session);
    const steady::time_point recorded = steady::now();
    check(state, end_recording(session), "the recording did not end as it should");
    const storage_figures figures = storage_end();
    check_and_remove(state, 1, 1); // with one frame of silence
    times.request_ns.push_back(std::chrono::nanoseconds(begun - request).count());
    times.recorded_ns.push_back(std::chrono::nanoseconds(recorded - request).count());
    times.picture_ns.push_back(std::chrono::nanoseconds(recorded - picture).count());
    times.in_callback_ns.push_back(figures.buffer_ns[TDMBREC_PORT_VIDEO].back());
}

// range: bytes per second of the storage; interval of the checkpoints in ms
static void begin_recordings(benchmark::State &state)
{
    const int starts = runs_whole() ? 100 : 5;
    use_checkpoints(state.range(1));
    begin_times times;
    for (auto _ : state) {
        il_session_ptr session = il_session_open();
        for (int i = 0; i < starts; i++) {
            begin_once(state, *session, times);
        }
        il_session_close(std::move(session));
    }
    state.counters["request_ns"] = quantile(times.request_ns, 0.5);
    state.counters["request_most_ns"] = quantile(times.request_ns, 1);
    state.counters["recorded_ns"] = quantile(times.recorded_ns, 0.5);
    state.counters["recorded_most_ns"] = quantile(times.recorded_ns, 1);
    state.counters["picture_ns"] = quantile(times.picture_ns, 0.5);
    state.counters["picture_most_ns"] = quantile(times.picture_ns, 1);
    state.counters["in_callback_ns"] = quantile(times.in_callback_ns, 0.5);
}
BENCHMARK(begin_recordings)
    ->ArgNames({"rate", "checkpoint"})
    ->ArgsProduct({{0, kSlowBytesPerSecond}, {0, kCheckpointMs}})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

static void register_storages()
{
    std::vector<int64_t> stalls_ms = {0, 100};
    if (runs_whole()) {
        stalls_ms = {0, 100, 500, 2000};
    }
    for (const int64_t interval_ms : {int64_t{0}, kCheckpointMs}) {
        const auto add = [&](int64_t rate, int64_t stall_ms, int64_t runs) {
            benchmark::RegisterBenchmark("handle_buffers", handle_buffers)
                ->ArgNames({"rate", "stall", "checkpoint"})
                ->Args({rate, stall_ms, interval_ms})
                ->Iterations(runs)
                ->UseRealTime()
                ->Unit(benchmark::kMillisecond);
        };
        add(0, 0, 3);
        for (const int64_t stall_ms : stalls_ms) {
            add(kSlowBytesPerSecond, stall_ms, stall_ms == 0 ? 3 : 1);
        }
    }
}

int main(int argc, char **argv)
{
    return run_recorder_benchmarks(argc, argv, register_storages);
}
