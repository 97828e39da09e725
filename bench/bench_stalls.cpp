// How many buffers of each port ride out a storage that stalls: the most that a player at the pace
// of the programme has with the component, or would have with it if there were enough of them. And
// how long a stall may be for a player with so many buffers.
//
// RECORDER_BENCH=whole in the environment measures stalls of up to 5 s, and up to 235 buffers.
#include "bench/programme_session.h"
#include "bench/slow_storage.h"
#include "component/tdmbrec_interface.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <string>
#include <thread>

using steady = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

// The programme so far is sent as fast as it is taken. The cache of the file is full a second
// later, so that also without checkpoints the stall begins soon.
static constexpr milliseconds kSkippedTime(17000);
static constexpr milliseconds kLeadTime(500);
static constexpr milliseconds kTimeWithoutStall(1500);
static constexpr milliseconds kDrainTime(500);
static constexpr milliseconds kPatience(60000);

// The buffers of one port, by the clock.
struct port_feed {
    int64_t period_us;
    uint64_t sent = 0;
    std::vector<steady::time_point>
        needed_since; // at n: when more than n buffers were first needed

    uint64_t due(microseconds elapsed) const
    {
        return static_cast<uint64_t>(elapsed.count() / period_us) + 1;
    }
};

using port_feeds = std::array<port_feed, TDMBREC_PORT_COUNT>;

static const Bytes &unit_of(uint32_t port, uint64_t index)
{
    if (port == TDMBREC_PORT_AUDIO) {
        return pcm_buffers()[index % pcm_buffers().size()];
    }
    const std::vector<Bytes> &pictures = sample_programme().access_units;
    return pictures[index % pictures.size()];
}

static OMX_BUFFERHEADERTYPE *take_free_buffer(il_session &session, uint32_t port)
{
    const std::lock_guard<std::mutex> guard(session.lock);
    std::vector<OMX_BUFFERHEADERTYPE *> &free = session.ports[port].free;
    if (free.empty()) {
        return nullptr;
    }
    OMX_BUFFERHEADERTYPE *const buffer = free.back();
    free.pop_back();
    session.out_count++;
    return buffer;
}

static uint64_t count_held(il_session &session, uint32_t port)
{
    const std::lock_guard<std::mutex> guard(session.lock);
    return session.ports[port].all.size() - session.ports[port].free.size();
}

// Sends what is due, as far as buffers are free, each by itself. What is left needs buffers too.
static void send_due(benchmark::State &state, il_session &session, uint32_t port, port_feed &feed,
                     microseconds elapsed)
{
    const uint64_t due = feed.due(elapsed);
    while (feed.sent < due) {
        OMX_BUFFERHEADERTYPE *const buffer = take_free_buffer(session, port);
        if (buffer == nullptr) {
            break;
        }
        const Bytes &bytes = unit_of(port, feed.sent);
        std::copy(bytes.begin(), bytes.end(), buffer->pBuffer);
        buffer->nFilledLen = static_cast<OMX_U32>(bytes.size());
        buffer->nTimeStamp =
            port == TDMBREC_PORT_VIDEO ? video_time_us(feed.sent) : audio_time_us(feed.sent);
        check(state, OMX_EmptyThisBuffer(session.component, buffer) == OMX_ErrorNone,
              "the component refuses a buffer");
        feed.sent++;
    }
    const uint64_t needed = due - feed.sent + count_held(session, port);
    if (needed > feed.needed_since.size()) {
        feed.needed_since.resize(needed, steady::now());
    }
}

// in: begin: of what is measured
static bool is_over(steady::time_point begin, milliseconds stall)
{
    if (stall.count() == 0) {
        return steady::now() > begin + kTimeWithoutStall;
    }
    const stalled_call call = storage_stalled_call();
    return call.begin != steady::time_point() &&
           steady::now() > call.begin + stall + call.own_time + kDrainTime;
}

// The first picture has been sent.
static port_feeds play_through_stall(benchmark::State &state, il_session &session,
                                     storage_stall kind, milliseconds stall)
{
    port_feeds feeds = {port_feed{.period_us = 1000000 / kPicturesPerSecond, .sent = 1},
                        port_feed{.period_us = kPcmBufferSamples * 1000000ll / kSampleRate}};
    const steady::time_point start = steady::now();
    const steady::time_point begin = start + kLeadTime;
    for (bool is_stall_set = false; !is_stall_set || !is_over(begin, stall);) {
        const steady::time_point now = steady::now();
        if (!is_stall_set && now > begin) {
            for (port_feed &feed : feeds) {
                feed.needed_since.clear();
            }
            storage_stall_next(kind, stall);
            is_stall_set = true;
        }
        for (uint32_t port = 0; port < feeds.size(); port++) {
            send_due(state, session, port, feeds[port],
                     std::chrono::duration_cast<microseconds>(kSkippedTime + (now - start)));
        }
        std::this_thread::sleep_for(milliseconds(1));
        if (now > begin + stall + kPatience) {
            check(state, false, "nothing met the stall");
            break;
        }
    }
    return feeds;
}

// Records the programme to a storage that stalls once.
static port_feeds record_through_stall(benchmark::State &state, int64_t bytes_per_second,
                                       storage_stall kind, milliseconds stall)
{
    il_session_ptr session = il_session_open();
    begin_recording(*session);
    storage_begin(static_cast<uint64_t>(bytes_per_second));
    il_session_send(*session, TDMBREC_PORT_VIDEO, unit_of(TDMBREC_PORT_VIDEO, 0), video_time_us(0),
                    0);
    hand_in(*session); // no sound before the first picture
    port_feeds feeds = play_through_stall(state, *session, kind, stall);
    check(state, end_recording(*session), "the recording did not end as it should");
    (void)storage_end();
    il_session_close(std::move(session));
    check(state, has_frames(feeds[TDMBREC_PORT_VIDEO].sent, feeds[TDMBREC_PORT_AUDIO].sent),
          "the file lacks frames of buffers that came back");
    return feeds;
}

// range: stall in ms; interval of the checkpoints in ms; storage_stall
static void ride_out_stall(benchmark::State &state)
{
    use_checkpoints(state.range(1));
    for (auto _ : state) {
        const port_feeds feeds = record_through_stall(
            state, 0, static_cast<storage_stall>(state.range(2)), milliseconds(state.range(0)));
        state.counters["buffers_0"] = static_cast<double>(feeds[0].needed_since.size());
        state.counters["buffers_1"] = static_cast<double>(feeds[1].needed_since.size());
    }
}

// The longest stall with which so many buffers suffice: the stalled write still takes its own time
// after the stall, in which no buffer comes back either.
// returns: ms; less than 0 when the buffers do not last for that time alone
static double find_longest_stall_ms(const stalled_call &call, steady::time_point more_needed_since)
{
    const std::chrono::duration<double, std::milli> time =
        more_needed_since - call.begin - call.own_time;
    return time.count();
}

// range: stall in ms, which lasts longer than the buffers; interval of the checkpoints in ms
static void outlast_buffers(benchmark::State &state)
{
    use_checkpoints(state.range(1));
    for (auto _ : state) {
        const port_feeds feeds = record_through_stall(state, kSlowBytesPerSecond, kStallOfAll,
                                                      milliseconds(state.range(0)));
        const stalled_call call = storage_stalled_call();
        for (size_t port = 0; port < feeds.size(); port++) {
            const std::vector<steady::time_point> &needed_since = feeds[port].needed_since;
            for (const size_t count : {4u, 8u, 16u, 32u, 64u, 151u, 235u}) {
                if (needed_since.size() > count) {
                    state.counters[std::to_string(port) + "_" + std::to_string(count)] =
                        find_longest_stall_ms(call, needed_since[count]);
                }
            }
        }
    }
}

static void register_stalls()
{
    std::vector<int64_t> stalls_ms = {100};
    int64_t outlasting_ms = 400;
    if (runs_whole()) {
        stalls_ms = {0, 100, 500, 1000, 2000, 5000};
        outlasting_ms = 8500;
    }
    auto *const stalls = benchmark::RegisterBenchmark("ride_out_stall", ride_out_stall)
                             ->ArgNames({"stall", "checkpoint", "syncs_only"});
    for (const int64_t stall_ms : stalls_ms) {
        stalls->Args({stall_ms, 0, kStallOfAll});
        stalls->Args({stall_ms, kCheckpointMs, kStallOfAll});
        stalls->Args({stall_ms, kCheckpointMs, kStallOfSyncs});
    }
    auto *const buffers = benchmark::RegisterBenchmark("outlast_buffers", outlast_buffers)
                              ->ArgNames({"stall", "checkpoint"})
                              ->Args({outlasting_ms, 0})
                              ->Args({outlasting_ms, kCheckpointMs});
    for (auto *const rows : {stalls, buffers}) {
        rows->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
    }
}

int main(int argc, char **argv)
{
    return run_recorder_benchmarks(argc, argv, register_stalls);
}
