// What checkpoints cost: bytes, writes, CPU time, and the longest time that the buffer thread
// spends in one buffer on a slow storage.
#include "bench/process_usage.h"
#include "bench/programme_session.h"
#include "bench/slow_storage.h"
#include "component/tdmbrec_interface.h"
#include "platform/host/host_control.h"

#include <algorithm>
#include <string>
#include <thread>

static constexpr uint32_t kSlowBytesPerSecond = 10000000;
static constexpr uint32_t kLoops = 6; // of the sample programme
static constexpr int64_t kIntervalMs = 1000;

static void use_checkpoints(int64_t interval_ms)
{
    host_set_property(TDMBREC_CHECKPOINT_PROPERTY, std::to_string(interval_ms).c_str());
}

// returns: the CPU time of the process, in seconds
static double record(benchmark::State &state)
{
    il_session_ptr session = il_session_open();
    const double begin = process_cpu_seconds();
    begin_recording(*session);
    send_paced_programme(*session, kLoops);
    check(state, end_recording(*session), "the recording did not end as it should");
    const double end = process_cpu_seconds();
    il_session_close(std::move(session));
    return end - begin;
}

// range: interval in ms; bytes per second of the storage, 0 for as fast as memory
static void record_to_storage(benchmark::State &state)
{
    use_checkpoints(state.range(0));
    for (auto _ : state) {
        storage_begin(static_cast<uint64_t>(state.range(1)));
        (void)record(state);
        const storage_figures figures = storage_end();
        const double minutes = kLoops * kProgrammeSeconds / 60;
        state.counters["media_writes"] = figures.media_writes / minutes;
        state.counters["media_bytes"] = figures.media_bytes / minutes;
        state.counters["journal_writes"] = figures.journal_writes / minutes;
        state.counters["journal_bytes"] = figures.journal_bytes / minutes;
        state.counters["longest_ms"] = figures.longest_buffer_ms;
    }
}
BENCHMARK(record_to_storage)
    ->ArgNames({"checkpoint", "rate"})
    ->ArgsProduct({{0, kIntervalMs}, {0, kSlowBytesPerSecond}})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

static double cpu_with_interval(benchmark::State &state, int64_t interval_ms)
{
    use_checkpoints(interval_ms);
    return record(state) / (kLoops * kProgrammeSeconds);
}

// CPU time of a second of programme on one core: the least of alternating runs, because whatever
// else the machine does only adds to a run.
static void compare_cpu(benchmark::State &state)
{
    const int pairs = runs_whole() ? 60 : 3;
    use_cores(1);
    for (auto _ : state) {
        double without_s = cpu_with_interval(state, 0);
        double with_s = cpu_with_interval(state, kIntervalMs);
        for (int i = 1; i < pairs; i++) {
            without_s = std::min(without_s, cpu_with_interval(state, 0));
            with_s = std::min(with_s, cpu_with_interval(state, kIntervalMs));
        }
        state.counters["ratio"] = with_s / without_s;
        state.counters["without"] = without_s;
        state.counters["with"] = with_s;
    }
    use_cores(std::thread::hardware_concurrency());
}
BENCHMARK(compare_cpu)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

int main(int argc, char **argv)
{
    return run_recorder_benchmarks(argc, argv, [] {});
}
