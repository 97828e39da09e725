#include "bench/programme_session.h"

#include "client/failure.h"
#include "client/omx_core.h"
#include "component/tdmbrec_interface.h"
#include "mp4read/mp4_reader.h"
#include "platform/android_log.h"
#include "platform/host/host_control.h"
#include "tests/support/storage_namespace.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

void check(benchmark::State &state, bool holds, const char *fault)
{
    if (!holds) {
        state.SkipWithError(fault);
    }
}

bool runs_whole()
{
    const char *const wish = std::getenv("RECORDER_BENCH");
    return wish != nullptr && std::string(wish) == "whole";
}

void use_checkpoints(int64_t interval_ms)
{
    host_set_property(TDMBREC_CHECKPOINT_PROPERTY, std::to_string(interval_ms).c_str());
}

void begin_recording(il_session &session)
{
    static constexpr uint8_t kDelimiter[] = {0, 0, 0, 1, 9, 0xF0};
    il_session_start(session, kOutput, kSampleRate);
    il_session_send(session, TDMBREC_PORT_VIDEO, kDelimiter, video_time_us(0) - kFrameUs, 0);
}

void hand_in(il_session &session)
{
    il_session_flush(session);
    std::unique_lock<std::mutex> guard(session.lock);
    session.changed.wait(guard, [&] { return session.out_count == 0; });
}

bool end_recording(il_session &session)
{
    return il_session_stop(session) == TDMBREC_STOP_CLIENT &&
           std::filesystem::file_size(kOutput) > 0;
}

bool has_frames(size_t pictures, size_t sounds)
{
    const Bytes image = read_file(kOutput);
    const mp4_reader::movie movie = mp4_reader::read_movie(image);
    const mp4_reader::track *const video = mp4_reader::find_track(movie, "vide");
    const mp4_reader::track *const audio = mp4_reader::find_track(movie, "soun");
    return movie.faults.empty() && video != nullptr && video->samples.size() == pictures &&
           audio != nullptr && audio->samples.size() == sounds;
}

const std::vector<Bytes> &pcm_buffers()
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

size_t count_pcm_buffers(size_t pictures)
{
    size_t count = 0;
    while (audio_time_us(count) < video_time_us(pictures)) {
        count++;
    }
    return count;
}

template <typename AfterBuffer>
static void send_loops(il_session &session, uint32_t first_loop, uint32_t loops,
                       AfterBuffer after_buffer)
{
    const std::vector<Bytes> &pictures = sample_programme().access_units;
    const size_t end = (first_loop + loops) * pictures.size();
    size_t i = first_loop * pictures.size();
    size_t audio = count_pcm_buffers(i);
    for (; i < end; i++) {
        il_session_send(session, TDMBREC_PORT_VIDEO, pictures[i % pictures.size()],
                        video_time_us(i), 0);
        after_buffer();
        for (; audio_time_us(audio) < video_time_us(i + 1); audio++) {
            il_session_send(session, TDMBREC_PORT_AUDIO,
                            pcm_buffers()[audio % pcm_buffers().size()], audio_time_us(audio), 0);
            after_buffer();
        }
    }
}

void send_programme(il_session &session, uint32_t loops)
{
    send_loops(session, 0, loops, [] {});
}

void send_paced_programme(il_session &session, uint32_t loops, uint32_t first_loop)
{
    send_loops(session, first_loop, loops, [&] { il_session_flush(session); });
}

int run_recorder_benchmarks(int argc, char **argv, void (*register_more)())
{
    const int status = run_in_storage_namespace(argc, argv);
    if (status >= 0) {
        return status;
    }
    benchmark::Initialize(&argc, argv);
    register_more();
    host_set_log_level(ANDROID_LOG_SILENT);
    if (OMX_Init() != OMX_ErrorNone) {
        return 1;
    }
    try {
        benchmark::RunSpecifiedBenchmarks();
    } catch (const failure &error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return 1;
    }
    return OMX_Deinit() == OMX_ErrorNone ? 0 : 1;
}
