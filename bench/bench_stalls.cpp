// How many buffers of each port ride out a storage that stalls: the most that a player at the pace
// of the programme has with the component, or would have with it if there were enough of them.
//
// RECORDER_BENCH=whole in the environment measures stalls of up to 5 s.
#include "bench/programme_session.h"
#include "bench/slow_storage.h"
#include "component/tdmbrec_interface.h"
#include "platform/host/host_control.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

using steady = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

static constexpr milliseconds kLeadTime(500); // the file is open, and the first checkpoints made
static constexpr milliseconds kDrainTime(1500);
// The cache of the file is full after a second, so that the stall begins soon.
static constexpr size_t kPictureBytes = 35000;

// The buffers of one port, by the clock.
struct port_feed {
    int64_t period_us;
    uint64_t sent = 0;
    uint64_t most_needed = 0;

    uint64_t due(microseconds elapsed) const
    {
        return static_cast<uint64_t>(elapsed.count() / period_us) + 1;
    }
};

using port_feeds = std::array<port_feed, TDMBREC_PORT_COUNT>;

static const Bytes &unit_of(uint32_t port, uint64_t index)
{
    static const Bytes picture = [] {
        Bytes data(kPictureBytes, 0x55);
        static constexpr uint8_t kSlice[] = {0, 0, 0, 1, 0x41};
        std::copy(std::begin(kSlice), std::end(kSlice), data.begin());
        return data;
    }();
    if (port == TDMBREC_PORT_AUDIO) {
        return pcm_buffers()[index % pcm_buffers().size()];
    }
    return index == 0 ? sample_programme().access_units[0] : picture;
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
    feed.most_needed = std::max(feed.most_needed, due - feed.sent + count_held(session, port));
}

static port_feeds play_through_stall(benchmark::State &state, il_session &session,
                                     storage_stall kind, milliseconds stall)
{
    port_feeds feeds = {port_feed{.period_us = 1000000 / kPicturesPerSecond},
                        port_feed{.period_us = kPcmBufferSamples * 1000000ll / kSampleRate}};
    const steady::time_point begin = steady::now();
    bool is_stall_set = false;
    for (microseconds elapsed(0); elapsed < kLeadTime + stall + kDrainTime;) {
        if (!is_stall_set && elapsed > kLeadTime) {
            storage_stall_next(kind, stall);
            is_stall_set = true;
        }
        for (uint32_t port = 0; port < feeds.size(); port++) {
            send_due(state, session, port, feeds[port], elapsed);
        }
        std::this_thread::sleep_for(milliseconds(1));
        elapsed = std::chrono::duration_cast<microseconds>(steady::now() - begin);
    }
    return feeds;
}

// range: stall in ms; interval of the checkpoints in ms; storage_stall
static void ride_out_stall(benchmark::State &state)
{
    host_set_property(TDMBREC_CHECKPOINT_PROPERTY, std::to_string(state.range(1)).c_str());
    for (auto _ : state) {
        il_session_ptr session = il_session_open();
        begin_recording(*session);
        il_session_flush(*session);
        storage_begin(0);
        const port_feeds feeds =
            play_through_stall(state, *session, static_cast<storage_stall>(state.range(2)),
                               milliseconds(state.range(0)));
        storage_end();
        check(state, end_recording(*session), "the recording did not end as it should");
        il_session_close(std::move(session));
        state.counters["buffers_0"] = static_cast<double>(feeds[0].most_needed);
        state.counters["buffers_1"] = static_cast<double>(feeds[1].most_needed);
    }
}

static void register_stalls()
{
    static constexpr int64_t kIntervalMs = 1000;
    const char *const wish = std::getenv("RECORDER_BENCH");
    std::vector<int64_t> stalls_ms = {100};
    if (wish != nullptr && std::string(wish) == "whole") {
        stalls_ms = {0, 100, 500, 1000, 2000, 5000};
    }
    auto *const rows = benchmark::RegisterBenchmark("ride_out_stall", ride_out_stall)
                           ->ArgNames({"stall", "checkpoint", "syncs_only"})
                           ->Iterations(1)
                           ->UseRealTime()
                           ->Unit(benchmark::kMillisecond);
    for (const int64_t stall_ms : stalls_ms) {
        rows->Args({stall_ms, 0, kStallOfAll});
        rows->Args({stall_ms, kIntervalMs, kStallOfAll});
        rows->Args({stall_ms, kIntervalMs, kStallOfSyncs});
    }
}

int main(int argc, char **argv)
{
    return run_recorder_benchmarks(argc, argv, register_stalls);
}
