// The recorder through its OpenMAX IL interface, recording to memory file systems: the speed of a
// programme beside that of the encoder alone, CPU per video buffer, memory of a recording, the
// close of a recording at the size limit, and what an idle component costs.
//
// RECORDER_BENCH=whole in the environment lets the rests last 10 s and adds the long recordings.
#include "aacenc/aac_enc.h"
#include "client/failure.h"
#include "client/il_session.h"
#include "client/omx_core.h"
#include "component/tdmbrec_interface.h"
#include "platform/host/host_control.h"
#include "platform/storage_info.h"
#include "tests/support/programme.h"
#include "tests/support/storage_namespace.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <string>
#include <thread>
#include <unistd.h>

static constexpr char kOutput[] = "/mnt/sdcard/bench.mp4";
static constexpr unsigned kRate = 48000;
static constexpr int64_t kPictures = 300000;
static constexpr uint32_t kLoops = 30; // of the sample's ten seconds

static constexpr double kProgrammeSeconds = 10; // the sample's length
static constexpr uint32_t kPcmFrameUs = 1024 * 1000000ull / kRate;

static double cpu_seconds(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// CPU time of all threads but this one: the component's.
static double component_cpu_seconds(void)
{
    return cpu_seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu_seconds(CLOCK_THREAD_CPUTIME_ID);
}

static double resident_kib(void)
{
    std::ifstream statm("/proc/self/statm");
    double pages = 0;
    statm >> pages >> pages;
    return pages * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

// Times that a thread of the process other than this one has gone to sleep, or was put to it.
static int64_t component_switches(void)
{
    int64_t switches = 0;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (task.path().filename() == std::to_string(getpid())) {
            continue;
        }
        std::ifstream status(task.path() / "status");
        for (std::string word; status >> word;) {
            if (word.ends_with("ctxt_switches:")) {
                int64_t count = 0;
                status >> count;
                switches += count;
            }
        }
    }
    return switches;
}

// The benchmarks that take seconds to minutes run only when asked for.
static bool runs_whole(void)
{
    const char *const wish = std::getenv("RECORDER_BENCH");
    return wish != nullptr && std::string(wish) == "whole";
}

static void check(benchmark::State &state, bool sound, const char *what)
{
    if (!sound) {
        state.SkipWithError(what);
    }
}

// The first buffer of a recording sets its time base.
static void begin_recording(il_session &recorder)
{
    static constexpr uint8_t kDelimiter[] = {0, 0, 0, 1, 9, 0xF0};
    il_session_start(recorder, kOutput, kRate);
    il_session_send(recorder, TDMBREC_PORT_VIDEO, kDelimiter, video_time_us(0) - kFrameUs, 0);
}

static bool end_recording(il_session &recorder)
{
    return il_session_stop(recorder) == TDMBREC_STOP_CLIENT &&
           std::filesystem::file_size(kOutput) > 0;
}

static const std::vector<Bytes> &pcm_buffers(void)
{
    static const std::vector<Bytes> buffers = [] {
        std::vector<Bytes> all;
        for (size_t i = 0; i < pcm_buffer_count(sample_programme()); i++) {
            all.push_back(pcm_buffer(sample_programme(), i));
        }
        return all;
    }();
    return buffers;
}

// Plays the sample `loops` times; a picture and the sound up to the next.
static void play(il_session &recorder, uint32_t loops)
{
    const std::vector<Bytes> &pictures = sample_programme().access_units;
    size_t audio = 0;
    for (size_t i = 0; i < loops * pictures.size(); i++) {
        il_session_send(recorder, TDMBREC_PORT_VIDEO, pictures[i % pictures.size()],
                        video_time_us(i), 0);
        for (; audio_time_us(audio) < video_time_us(i + 1); audio++) {
            il_session_send(recorder, TDMBREC_PORT_AUDIO,
                            pcm_buffers()[audio % pcm_buffers().size()], audio_time_us(audio), 0);
        }
    }
}

static void report_speed(benchmark::State &state)
{
    state.counters["x_real_time"] = benchmark::Counter(
        kLoops * kProgrammeSeconds, benchmark::Counter::kIsIterationInvariantRate);
}

// Lets this thread, and those that it starts, run on so many of the machine's cores.
static void use_cores(int64_t count)
{
    cpu_set_t cores;
    CPU_ZERO(&cores);
    for (int64_t core = 0; core < count; core++) {
        CPU_SET(static_cast<size_t>(core), &cores);
    }
    (void)sched_setaffinity(0, sizeof(cores), &cores); // where that is refused, any core serves
}

// The speed of a programme through the interface, and of the encoder alone. On one core, as a
// device has; on two, the buffers' bytes move from one core to the other.
static void record_programme(benchmark::State &state)
{
    use_cores(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        il_session_ptr recorder = il_session_open();
        begin_recording(*recorder);
        state.ResumeTiming();
        play(*recorder, kLoops);
        check(state, end_recording(*recorder), "the recording did not end as it should");
        state.PauseTiming();
        il_session_close(std::move(recorder));
        state.ResumeTiming();
    }
    use_cores(std::thread::hardware_concurrency());
    report_speed(state);
}
BENCHMARK(record_programme)
    ->ArgName("cores")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kMillisecond);

static void encode_programme(benchmark::State &state)
{
    const AacEncCallbacks callbacks = {std::malloc, std::free,    std::memcpy,
                                       std::memset, std::realloc, std::memmove};
    uint8_t output[AACENC_OUTPUT_BYTES];
    for (auto _ : state) {
        AacEncAudioInfo audio = {.sampleRate = kRate, .deinterleave = 1, .channels = 2};
        AacEncStreamInfo stream = {.output = output, .bitRate = 128000};
        AacEncInitParams params = {
            .audioInfo = &audio, .streamInfo = &stream, .callbacks = &callbacks};
        void *handle = nullptr;
        bool sound = QVR_AAC_ENC(AACENC_OP_INIT, &handle, &params, nullptr) == AACENC_OK;
        for (size_t i = 0; sound && i < kLoops * pcm_buffers().size(); i++) {
            audio.pcm =
                reinterpret_cast<const int16_t *>(pcm_buffers()[i % pcm_buffers().size()].data());
            sound = QVR_AAC_ENC(AACENC_OP_ENCODE, &handle, &audio, &stream) == AACENC_OK;
        }
        check(state, sound && QVR_AAC_ENC(AACENC_OP_CLOSE, &handle, nullptr, nullptr) == AACENC_OK,
              "the encoder failed");
    }
    report_speed(state);
}
BENCHMARK(encode_programme)->UseRealTime()->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);

// CPU of the component's threads per picture, on one core.
static void record_pictures(benchmark::State &state)
{
    use_cores(1);
    const std::vector<Bytes> &pictures = sample_programme().access_units;
    il_session_ptr recorder = il_session_open();
    begin_recording(*recorder);
    size_t sent = 0;
    double cpu = -component_cpu_seconds();
    for (auto _ : state) {
        il_session_send(*recorder, TDMBREC_PORT_VIDEO, pictures[sent % pictures.size()],
                        video_time_us(sent), 0);
        sent++;
    }
    cpu += component_cpu_seconds();
    check(state, end_recording(*recorder), "the recording did not end as it should");
    il_session_close(std::move(recorder));
    use_cores(std::thread::hardware_concurrency());
    state.counters["component_cpu"] = cpu / static_cast<double>(sent);
}
BENCHMARK(record_pictures)->Iterations(kPictures);

// What of that the copy alone takes: into a cache, and from there into a file.
static void copy_pictures(benchmark::State &state)
{
    static constexpr size_t kCacheBytes = 0xC0000;
    const std::vector<Bytes> &pictures = sample_programme().access_units;
    std::vector<uint8_t> cache(kCacheBytes);
    FILE *const file = std::fopen(kOutput, "wb");
    size_t used = 0;
    size_t sent = 0;
    for (auto _ : state) {
        const Bytes &picture = pictures[sent++ % pictures.size()];
        if (used + picture.size() > cache.size()) {
            check(state, std::fwrite(cache.data(), 1, used, file) == used, "no room");
            used = 0;
        }
        std::memcpy(cache.data() + used, picture.data(), picture.size());
        used += picture.size();
    }
    std::fclose(file);
}
BENCHMARK(copy_pictures)->Iterations(kPictures);

// The question for the free space that each buffer of a recording puts to the platform.
static void query_storage(benchmark::State &state)
{
    df_handle_t *const storage = dfopen();
    for (auto _ : state) {
        check(state, dfget(storage, DF_BUILT_IN) != nullptr, "no storage");
    }
    dfclose(storage);
}
BENCHMARK(query_storage);

// So that which buffers a recording happens to use makes no difference to what is resident.
static void touch_buffers(il_session &recorder)
{
    for (port_buffers &buffers : recorder.ports) {
        for (OMX_BUFFERHEADERTYPE *const buffer : buffers.all) {
            std::memset(buffer->pBuffer, 0, buffer->nAllocLen);
        }
    }
}

// Growth of the resident memory by a recording. What the session uses has been used before; an
// earlier recording in the same process leaves memory to this one, which then grows less.
static void grow_resident(benchmark::State &state)
{
    for (auto _ : state) {
        il_session_ptr recorder = il_session_open();
        touch_buffers(*recorder);
        play(*recorder, 1);
        il_session_flush(*recorder);
        const double before = resident_kib();
        begin_recording(*recorder);
        play(*recorder, static_cast<uint32_t>(state.range(0)));
        il_session_flush(*recorder);
        state.counters["KiB"] = resident_kib() - before;
        check(state, end_recording(*recorder), "the recording did not end as it should");
        il_session_close(std::move(recorder));
    }
}

static constexpr std::chrono::milliseconds kSettling(200); // until every thread sleeps

// Switches and CPU time of the component's threads while they have nothing to do.
static void measure_rest(benchmark::State &state)
{
    const int64_t switches = component_switches();
    const double cpu = component_cpu_seconds();
    std::this_thread::sleep_for(std::chrono::seconds(runs_whole() ? 10 : 1));
    state.counters["switches"] = static_cast<double>(component_switches() - switches);
    state.counters["cpu"] = component_cpu_seconds() - cpu;
}

static void command_state(il_session &recorder, OMX_STATETYPE state)
{
    recorder.component->SendCommand(recorder.component, OMX_CommandStateSet, state, nullptr);
    OMX_STATETYPE reached = OMX_StateInvalid;
    while (recorder.component->GetState(recorder.component, &reached) == OMX_ErrorNone &&
           reached != state) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::this_thread::sleep_for(kSettling);
}

static void rest_executing(benchmark::State &state)
{
    for (auto _ : state) {
        il_session_ptr recorder = il_session_open();
        std::this_thread::sleep_for(kSettling);
        measure_rest(state);
        il_session_close(std::move(recorder));
    }
}
BENCHMARK(rest_executing)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

static void rest_paused(benchmark::State &state)
{
    for (auto _ : state) {
        il_session_ptr recorder = il_session_open();
        begin_recording(*recorder);
        command_state(*recorder, OMX_StatePause);
        for (size_t i = 0; i < 4; i++) {
            il_session_send(*recorder, TDMBREC_PORT_VIDEO, sample_programme().access_units[i],
                            video_time_us(i), 0);
        }
        il_session_flush(*recorder);
        std::this_thread::sleep_for(kSettling);
        measure_rest(state);
        command_state(*recorder, OMX_StateExecuting);
        check(state, end_recording(*recorder), "the recording did not end as it should");
        il_session_close(std::move(recorder));
    }
}
BENCHMARK(rest_paused)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

// From the stop request to the event, for a recording of `frames` pictures and as many AAC frames.
static void close_recording(benchmark::State &state)
{
    static constexpr size_t kPictureBytes = 1400;
    Bytes picture(kPictureBytes, 0x55);
    static constexpr uint8_t kSlice[] = {0, 0, 0, 1, 0x41};
    std::copy(std::begin(kSlice), std::end(kSlice), picture.begin());
    for (auto _ : state) {
        state.PauseTiming();
        il_session_ptr recorder = il_session_open();
        begin_recording(*recorder);
        il_session_send(*recorder, TDMBREC_PORT_VIDEO, sample_programme().access_units[0],
                        video_time_us(0), 0);
        for (int64_t i = 0; i < state.range(0); i++) {
            const int64_t time_us = video_time_us(0) + (i + 1) * kPcmFrameUs;
            il_session_send(*recorder, TDMBREC_PORT_VIDEO, picture, time_us, 0);
            il_session_send(*recorder, TDMBREC_PORT_AUDIO,
                            pcm_buffers()[static_cast<size_t>(i) % pcm_buffers().size()], time_us,
                            0);
        }
        il_session_flush(*recorder);
        state.ResumeTiming();
        check(state, end_recording(*recorder), "the recording did not end as it should");
        state.PauseTiming();
        state.counters["bytes"] = static_cast<double>(std::filesystem::file_size(kOutput));
        il_session_close(std::move(recorder));
        state.ResumeTiming();
    }
}

static void register_by_length(void)
{
    auto *const grow = benchmark::RegisterBenchmark("grow_resident", grow_resident)
                           ->ArgName("loops")
                           ->Iterations(1)
                           ->Arg(1);
    auto *const close = benchmark::RegisterBenchmark("close_recording", close_recording)
                            ->ArgName("frames")
                            ->Iterations(1)
                            ->UseRealTime()
                            ->MeasureProcessCPUTime()
                            ->Unit(benchmark::kMillisecond)
                            ->Arg(10000);
    if (runs_whole()) {
        grow->Arg(kLoops)->Arg(360)->Arg(2160);
        close->Arg(250000)->Arg(500000)->Arg(1000000);
    }
}

int main(int argc, char **argv)
{
    const int status = run_in_storage_namespace(argc, argv);
    if (status >= 0) {
        return status;
    }
    benchmark::Initialize(&argc, argv);
    register_by_length();
    host_set_log_level(8);
    if (OMX_Init() != OMX_ErrorNone) {
        return 1;
    }
    try {
        benchmark::RunSpecifiedBenchmarks();
    } catch (const failure &error) {
        std::fprintf(stderr, "bench_component: %s\n", error.what());
        return 1;
    }
    return OMX_Deinit() == OMX_ErrorNone ? 0 : 1;
}
