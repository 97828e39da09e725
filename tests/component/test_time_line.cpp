// The times of recordings, compared with a model of the time line in plain arithmetic.
#include "aacenc/aac_enc.h"
#include "component/audio_encoder.h"
#include "platform/host/host_control.h"
#include "tests/support/component_test.h"
#include "tests/support/programme.h"
#include "tests/support/wrapped_calls.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <optional>
#include <random>

static constexpr uint64_t kAudioFrameMs = 21;
static constexpr size_t kAudioRingEntries = 50;
static constexpr uint32_t kFrameBytes = 64;

struct Buffer {
    bool is_video;
    bool has_parameter_sets;
    int64_t ts_us;
    uint32_t pcm_bytes;
};

static uint64_t cap(uint64_t ms)
{
    return std::min<uint64_t>(ms, UINT32_MAX);
}

// The clock of one kind: after a time stamp earlier than the previous one, the times continue one
// frame after the last one.
struct Clock {
    int64_t base_us = 0, last_us = 0;
    std::optional<uint64_t> backup_ms;
    uint64_t last_ms = 0;

    uint64_t map(int64_t ts_us, uint64_t frame_ms)
    {
        if (last_us > ts_us) {
            backup_ms = last_ms;
            base_us = ts_us;
        }
        last_us = ts_us;
        const uint64_t distance_us = static_cast<uint64_t>(ts_us) - static_cast<uint64_t>(base_us);
        return cap(distance_us / 1000 + (backup_ms ? frame_ms + *backup_ms : 0));
    }
};

// Frame n of a recording that the encoder of the random streams cannot encode.
static bool fails_to_encode(uint32_t n)
{
    return n % 13 == 5;
}

struct Model {
    NotedTimes times = {};

    Clock video = {}, audio = {};
    uint64_t interval_ms = 0, origin_ms = 0;
    std::deque<std::pair<uint64_t, uint64_t>> ring = {}; // time (ms), bytes
    uint64_t queued_bytes = 0;
    uint32_t frame_count = 0;

    static inline uint32_t segments[TDMBREC_VIDEO_SEGMENTS][TDMBREC_SEGMENT_WORDS] = {};
    static inline uint8_t segment = 0;

    void write(int type, uint64_t ms)
    {
        if (origin_ms != 0 && ms >= origin_ms) {
            times.emplace_back(type, static_cast<uint32_t>(ms - origin_ms));
        }
    }
    void take_video(const Buffer &buffer)
    {
        if (video.base_us == 0) {
            video.base_us = video.last_us = audio.base_us = buffer.ts_us;
        }
        const uint64_t ms = video.map(buffer.ts_us, interval_ms);
        if (buffer.has_parameter_sets && origin_ms == 0) {
            origin_ms = ms;
        }
        write(MUX_TYPE_VIDEO, ms);
        if (interval_ms == 0) {
            interval_ms = ms - video.last_ms;
        } else if (ms - video.last_ms > 2 * interval_ms) {
            segments[segment][1] = static_cast<uint32_t>(video.last_ms);
            segment = static_cast<uint8_t>((segment + 1) % TDMBREC_VIDEO_SEGMENTS);
        }
        segments[segment][0] = static_cast<uint32_t>(ms);
        video.last_ms = ms;
    }
    uint64_t lift(uint64_t ms) const // above the last frame, in whole frames
    {
        while (ms <= audio.last_ms && ms < UINT32_MAX) {
            ms += std::max<uint64_t>(kAudioFrameMs,
                                     (audio.last_ms - ms) / kAudioFrameMs * kAudioFrameMs);
        }
        return cap(ms);
    }
    void take_audio(const Buffer &buffer)
    {
        if (audio.base_us == 0 || buffer.ts_us < audio.base_us) {
            return;
        }
        const uint64_t ms = audio.map(buffer.ts_us, kAudioFrameMs);
        if (origin_ms == 0 || ms < origin_ms) {
            return;
        }
        if (ring.size() < kAudioRingEntries) {
            ring.emplace_back(lift(ms), buffer.pcm_bytes);
        } else {
            ring.back().second += buffer.pcm_bytes;
        }
        for (queued_bytes += buffer.pcm_bytes; queued_bytes >= kFrameBytes;) {
            queued_bytes -= kFrameBytes;
            if (!fails_to_encode(frame_count++)) {
                take_frame();
            }
        }
    }
    void take(const Buffer &buffer)
    {
        buffer.is_video ? take_video(buffer) : take_audio(buffer);
    }
    void take_frame()
    {
        audio.last_ms = ring.empty() ? cap(audio.last_ms + kAudioFrameMs) : lift(ring[0].first);
        for (uint64_t bytes = 0; bytes < kFrameBytes && !ring.empty(); ring.pop_front()) {
            bytes += ring[0].second;
        }
        write(MUX_TYPE_AUDIO, audio.last_ms);
    }
};

using Random = std::mt19937_64;

static int64_t random_step(Random &random, int64_t frame_us)
{
    const int64_t any = static_cast<int64_t>(random());
    const int64_t steps[] = {any % 2000, frame_us + any % 20000, any % 10000000,
                             any % 8000000000000}; // about twice 2^32 ms
    const uint64_t kind = random() % 12;
    return kind < std::size(steps) ? steps[kind] : frame_us;
}

// Both kinds in any order and in bursts, with jitter, gaps and clocks that jump. Some streams
// exceed 32 bits of ms, start anywhere in 64 bits or jump back hundreds of times.
static std::vector<Buffer> random_stream(Random &random)
{
    const uint64_t length = random() % 2000 == 0 ? 1500 : 10 + random() % 20;
    std::vector<Buffer> stream(static_cast<size_t>(length));
    int64_t clock_us[2] = {static_cast<int64_t>(random() % 3000000), 0};
    if (random() % 4 == 0) {
        clock_us[0] = static_cast<int64_t>(random()) / 4;
    }
    clock_us[1] = clock_us[0] + static_cast<int64_t>(random() % 100000);
    const bool is_tiny =
        random() % 4 == 0; // a frame then needs more buffers than the ring has entries
    bool is_video = random() % 4 != 0;
    for (Buffer &buffer : stream) {
        int64_t &ts_us = clock_us[is_video ? 0 : 1];
        buffer = {is_video, random() % 4 == 0, ts_us, kFrameBytes};
        if (is_tiny || random() % 4 == 0) {
            buffer.pcm_bytes =
                is_tiny ? 1 : 1 + static_cast<uint32_t>(random() % (3 * kFrameBytes));
        }
        ts_us += stream.size() > 100 ? (random() % 2 == 0 ? 40000 : -40000)
                                     : random_step(random, is_video ? 33333 : 21333);
        is_video = random() % 3 == 0 ? is_video : random() % 5 < 2;
    }
    return stream;
}

static Bytes data_of(const Buffer &buffer)
{
    if (!buffer.is_video) {
        return Bytes(buffer.pcm_bytes);
    }
    return buffer.has_parameter_sets
               ? Bytes{0, 0, 0, 1, 0x67, 66, 192, 13, 9, 0, 0, 0, 1, 0x68, 1, 0, 0, 0, 1, 0x65, 7}
               : Bytes{0, 0, 0, 1, 0x41, 7};
}

static Random seeded_random()
{
    const char *const seed = getenv("SEED");
    return Random(seed == nullptr ? 1 : strtoull(seed, nullptr, 10));
}

class TimeLine : public ComponentTest {};

static uint32_t encoded_frames;

// An encoder whose frames of 16 sample pairs last kAudioFrameMs.
static int32_t tiny_encoder(int32_t op, void **, void *arg3, void *arg4)
{
    if (op == AACENC_OP_INIT) {
        AacEncStreamInfo *const info = static_cast<AacEncInitParams *>(arg3)->streamInfo;
        info->sampleRate = 750;
        info->samplesPerChannel = 16;
    } else if (op == AACENC_OP_ENCODE) {
        static_cast<AacEncStreamInfo *>(arg4)->outputBytes = 1;
        return fails_to_encode(encoded_frames++) ? -1 : 0;
    }
    return 0;
}

// All fields but the framework's.
static void copy_own_fields(omx_tdmbrec_component_PrivateType *to,
                            const omx_tdmbrec_component_PrivateType *from)
{
    constexpr size_t kOwn = offsetof(omx_tdmbrec_component_PrivateType, bRecording);
    memcpy(reinterpret_cast<char *>(to) + kOwn, reinterpret_cast<const char *>(from) + kOwn,
           sizeof(*to) - kOwn);
}

// The component's own buffer callback, with an encoder and a muxer that take no time.
TEST_F(TimeLine, IsThatOfTheModelInRandomStreams)
{
    const auto client = make_recorder();
    host_set_log_level(8);
    host_set_storage(0, 8000000, 8000000);
    omx_tdmbrec_component_PrivateType *const record = record_of(*client);
    NotedTimes times;
    note_times(&times, true);
    const auto take = [&](const Buffer &buffer) {
        Bytes data = data_of(buffer);
        OMX_BUFFERHEADERTYPE header = {};
        header.pBuffer = data.data();
        header.nAllocLen = header.nFilledLen = static_cast<OMX_U32>(data.size());
        header.nTimeStamp = buffer.ts_us;
        record->ucBufferPort = buffer.is_video ? TDMBREC_PORT_VIDEO : TDMBREC_PORT_AUDIO;
        omx_tdmbrec_component_BufferMgmtCallback(client->handle(), &header);
    };
    record->pfnAacEnc = tiny_encoder;
    record->stZplAenc.m_iAudioSamplePerSec = 750;
    record->iMuxOpenResult = 0;
    omx_tdmbrec_component_PrivateType fresh = {};
    copy_own_fields(&fresh, record);
    take({true, false, 1, 0});
    take({false, false, 1, kFrameBytes}); // opens the encoder
    const zpl_aenc_t encoder = record->stZplAenc;
    const auto begin_anew = [&] {
        copy_own_fields(record, &fresh);
        *record->pPcmQueue = {.pucRead = record->pucPcmBase, .uiLength = 0};
        record->stZplAenc = encoder;
        record->bEncoderReady = 1;
        record->uiAacInputSize = kFrameBytes;
        record->uiAudioFrameMs = kAudioFrameMs;
        encoded_frames = 0;
        times.clear();
    };
    Random random = seeded_random();
    memset(global_ui_VIDEO_PTS, 0, sizeof(global_ui_VIDEO_PTS));
    global_uc_write_index = 0;
    for (int i = 0; i < 100000 && !HasFailure(); i++) {
        begin_anew();
        Model model;
        for (const Buffer &buffer : random_stream(random)) {
            take(buffer);
            model.take(buffer);
        }
        ASSERT_EQ(times, model.times) << "stream " << i;
        ASSERT_EQ(memcmp(global_ui_VIDEO_PTS, Model::segments, sizeof(Model::segments)), 0) << i;
        ASSERT_EQ(global_uc_write_index, Model::segment) << i;
    }
    begin_anew();
    record->iMuxOpenResult = -1;
    client->destroy();
}

TEST_F(TimeLine, LogsEveryRollback)
{
    const auto client = make_recorder();
    for (const int64_t ts_us : {5000000, 5040000, 5000000}) {
        client->send(0, data_of({.is_video = true}), ts_us);
    }
    std::string lines;
    for (const LogLine &line : log()) {
        if (line.priority == 4 && line.tag == "OMX_TDMB_REC") {
            lines += line.text.substr(0, line.text.find('\n')) + "|";
        }
    }
    const std::string ruler(80, '#');
    EXPECT_EQ(lines, ruler + "|BACKUP_VIDEO_PTS : 40|VIDEO_ROLLBACK_COUNT : 1|" + ruler + "|");
    client->to_loaded();
}
