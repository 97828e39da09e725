// The recorder through its OpenMAX IL interface, recording to memory file systems: its speed
// compared with that of the encoder alone, the CPU time per video buffer, the memory of a
// recording, the time that a close takes, and what an idle component costs.
//
// RECORDER_BENCH=whole in the environment measures idle time for 10 s and adds the long recordings.
#include "aacenc/aac_enc.h"
#include "bench/process_usage.h"
#include "bench/programme_session.h"
#include "component/tdmbrec_interface.h"
#include "platform/storage_info.h"
#include "tests/support/programme.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

static constexpr int64_t kPictures = 300000;
static constexpr uint32_t kLoops = 30; // of the sample programme
static constexpr uint32_t kPcmFrameUs = AACENC_FRAME_SAMPLES * 1000000ull / kSampleRate;

static void report_speed(benchmark::State &state)
{
    state.counters["x_real_time"] = benchmark::Counter(
        kLoops * kProgrammeSeconds, benchmark::Counter::kIsIterationInvariantRate);
}

// range: cores. A device has one; with two, the buffers' bytes move from one core to the other.
static void record_programme(benchmark::State &state)
{
    use_cores(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        il_session_ptr session = il_session_open();
        begin_recording(*session);
        state.ResumeTiming();
        send_programme(*session, kLoops);
        check(state, end_recording(*session), "the recording did not end as it should");
        state.PauseTiming();
        il_session_close(std::move(session));
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
        AacEncAudioInfo audio = {.sampleRate = kSampleRate, .deinterleave = 1, .channels = 2};
        AacEncStreamInfo stream = {.output = output, .bitRate = 128000};
        AacEncInitParams params = {
            .audioInfo = &audio, .streamInfo = &stream, .callbacks = &callbacks};
        void *handle = nullptr;
        bool is_coded = QVR_AAC_ENC(AACENC_OP_INIT, &handle, &params, nullptr) == AACENC_OK;
        for (size_t i = 0; is_coded && i < kLoops * pcm_buffers().size(); i++) {
            audio.pcm =
                reinterpret_cast<const int16_t *>(pcm_buffers()[i % pcm_buffers().size()].data());
            is_coded = QVR_AAC_ENC(AACENC_OP_ENCODE, &handle, &audio, &stream) == AACENC_OK;
        }
        check(state,
              is_coded && QVR_AAC_ENC(AACENC_OP_CLOSE, &handle, nullptr, nullptr) == AACENC_OK,
              "the encoder failed");
    }
    report_speed(state);
}
BENCHMARK(encode_programme)->UseRealTime()->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);

// CPU time of the component's threads per picture, on one core.
static void record_pictures(benchmark::State &state)
{
    use_cores(1);
    const std::vector<Bytes> &pictures = sample_programme().access_units;
    il_session_ptr session = il_session_open();
    begin_recording(*session);
    size_t sent = 0;
    double cpu = -other_threads_cpu_seconds();
    for (auto _ : state) {
        il_session_send(*session, TDMBREC_PORT_VIDEO, pictures[sent % pictures.size()],
                        video_time_us(sent), 0);
        sent++;
    }
    cpu += other_threads_cpu_seconds();
    check(state, end_recording(*session), "the recording did not end as it should");
    il_session_close(std::move(session));
    use_cores(std::thread::hardware_concurrency());
    state.counters["component_cpu"] = cpu / static_cast<double>(sent);
}
BENCHMARK(record_pictures)->Iterations(kPictures);

// The part of record_pictures that is copying: into a cache, and from there into a file.
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

// The query for free space that each buffer of a recording makes.
static void query_storage(benchmark::State &state)
{
    df_handle_t *const storage = dfopen();
    for (auto _ : state) {
        check(state, dfget(storage, DF_BUILT_IN) != nullptr, "no storage");
    }
    dfclose(storage);
}
BENCHMARK(query_storage);

// Makes all buffers resident, so that it does not matter which of them a recording uses.
static void touch_buffers(il_session &session)
{
    for (port_buffers &buffers : session.ports) {
        for (OMX_BUFFERHEADERTYPE *const buffer : buffers.all) {
            std::memset(buffer->pBuffer, 0, buffer->nAllocLen);
        }
    }
}

// range: loops of the sample programme. The session's own memory is resident before the recording
// starts. An earlier recording in the same process leaves memory to this one, which then grows
// less.
static void grow_resident(benchmark::State &state)
{
    for (auto _ : state) {
        il_session_ptr session = il_session_open();
        touch_buffers(*session);
        send_programme(*session, 1);
        il_session_flush(*session);
        const double before = resident_kib();
        begin_recording(*session);
        send_programme(*session, static_cast<uint32_t>(state.range(0)));
        il_session_flush(*session);
        state.counters["KiB"] = resident_kib() - before;
        check(state, end_recording(*session), "the recording did not end as it should");
        il_session_close(std::move(session));
    }
}

static constexpr std::chrono::milliseconds kSettlingTime(200); // then every thread sleeps

// Switches and CPU time of the component's threads while they have nothing to do.
static void measure_rest(benchmark::State &state)
{
    const int64_t switches = other_threads_switches();
    const double cpu = other_threads_cpu_seconds();
    std::this_thread::sleep_for(std::chrono::seconds(runs_whole() ? 10 : 1));
    state.counters["switches"] = static_cast<double>(other_threads_switches() - switches);
    state.counters["cpu"] = other_threads_cpu_seconds() - cpu;
}

static void command_state(il_session &session, OMX_STATETYPE state)
{
    session.component->SendCommand(session.component, OMX_CommandStateSet, state, nullptr);
    OMX_STATETYPE reached = OMX_StateInvalid;
    while (session.component->GetState(session.component, &reached) == OMX_ErrorNone &&
           reached != state) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::this_thread::sleep_for(kSettlingTime);
}

static void rest_executing(benchmark::State &state)
{
    for (auto _ : state) {
        il_session_ptr session = il_session_open();
        std::this_thread::sleep_for(kSettlingTime);
        measure_rest(state);
        il_session_close(std::move(session));
    }
}
BENCHMARK(rest_executing)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

static void rest_paused(benchmark::State &state)
{
    for (auto _ : state) {
        il_session_ptr session = il_session_open();
        begin_recording(*session);
        command_state(*session, OMX_StatePause);
        for (size_t i = 0; i < 4; i++) {
            il_session_send(*session, TDMBREC_PORT_VIDEO, sample_programme().access_units[i],
                            video_time_us(i), 0);
        }
        il_session_flush(*session);
        std::this_thread::sleep_for(kSettlingTime);
        measure_rest(state);
        command_state(*session, OMX_StateExecuting);
        check(state, end_recording(*session), "the recording did not end as it should");
        il_session_close(std::move(session));
    }
}
BENCHMARK(rest_paused)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

// From the stop request to the event. range: pictures, and as many AAC frames.
static void close_recording(benchmark::State &state)
{
    static constexpr size_t kPictureBytes = 1400;
    Bytes picture(kPictureBytes, 0x55);
    static constexpr uint8_t kSlice[] = {0, 0, 0, 1, 0x41};
    std::copy(std::begin(kSlice), std::end(kSlice), picture.begin());
    for (auto _ : state) {
        state.PauseTiming();
        il_session_ptr session = il_session_open();
        begin_recording(*session);
        il_session_send(*session, TDMBREC_PORT_VIDEO, sample_programme().access_units[0],
                        video_time_us(0), 0);
        for (int64_t i = 0; i < state.range(0); i++) {
            const int64_t time_us = video_time_us(0) + (i + 1) * kPcmFrameUs;
            il_session_send(*session, TDMBREC_PORT_VIDEO, picture, time_us, 0);
            il_session_send(*session, TDMBREC_PORT_AUDIO,
                            pcm_buffers()[static_cast<size_t>(i) % pcm_buffers().size()], time_us,
                            0);
        }
        il_session_flush(*session);
        state.ResumeTiming();
        check(state, end_recording(*session), "the recording did not end as it should");
        state.PauseTiming();
        state.counters["bytes"] = static_cast<double>(std::filesystem::file_size(kOutput));
        il_session_close(std::move(session));
        state.ResumeTiming();
    }
}

static void register_by_length()
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
    return run_recorder_benchmarks(argc, argv, register_by_length);
}
