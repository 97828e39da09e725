// What checkpoints cost: bytes, writes, CPU time, and the longest time that the buffer thread
// spends in one buffer on a slow storage.
#include "bench/process_usage.h"
#include "bench/programme_session.h"
#include "bench/slow_storage.h"

#include <algorithm>
#include <cmath>

static constexpr uint32_t kLoops = 6; // of the sample programme

static void record(benchmark::State &state)
{
    il_session_ptr session = il_session_open();
    begin_recording(*session);
    send_paced_programme(*session, kLoops);
    check(state, end_recording(*session), "the recording did not end as it should");
    il_session_close(std::move(session));
}

// range: interval in ms; bytes per second of the storage, 0 for as fast as memory
static void record_to_storage(benchmark::State &state)
{
    use_checkpoints(state.range(0));
    double longest_ms = HUGE_VAL;
    for (auto _ : state) {
        storage_begin(static_cast<uint64_t>(state.range(1)));
        record(state);
        const storage_figures figures = storage_end();
        const double minutes = kLoops * kProgrammeSeconds / 60;
        state.counters["media_writes"] = figures.media_writes / minutes;
        state.counters["media_bytes"] = figures.media_bytes / minutes;
        state.counters["journal_writes"] = figures.journal_writes / minutes;
        state.counters["journal_bytes"] = figures.journal_bytes / minutes;
        longest_ms = std::min(longest_ms, figures.longest_buffer_ms);
        state.counters["longest_ms"] = longest_ms; // without what the machine added to a run
    }
}
BENCHMARK(record_to_storage)
    ->ArgNames({"checkpoint", "rate"})
    ->ArgsProduct({{0, kCheckpointMs}, {0, kSlowBytesPerSecond}})
    ->Iterations(5)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

int main(int argc, char **argv)
{
    return run_recorder_benchmarks(argc, argv, [] {});
}
