// A recording of frames of a few bytes, whose sample tables outgrow their caches.
#include "aacenc/aac_enc.h"
#include "mp4read/mp4_reader.h"
#include "platform/host/host_control.h"
#include "tests/support/component_test.h"
#include "tests/support/programme.h"

#include <filesystem>

class LongRecording : public ComponentTest {};

static constexpr uint32_t kFrames = 200000; // of each kind

static Bytes unit_of(uint32_t n)
{
    Bytes data(2 + n % 5, 0x5A);
    data[0] = n % 2 == 0 ? 0x65 : 0x41;
    data[1] = static_cast<uint8_t>(n | 1);
    return data;
}

static Bytes picture(uint32_t n)
{
    static const Bytes sps = {0x67, 66, 192, 13, 0x80}, pps = {0x68, 0x80};
    return n == 0 ? join_nal_units({sps, pps, unit_of(n)}) : join_nal_units({unit_of(n)});
}

static uint64_t picture_ms(uint32_t n) // with 1 ms and 2 ms in turn
{
    return 3 * uint64_t{n} / 2;
}

static Bytes audio_frame(uint32_t n)
{
    return Bytes(1 + n % 3, static_cast<uint8_t>(n));
}

static uint32_t encoded_frames;

// An encoder of 16 sample pairs.
static int32_t tiny_encoder(int32_t op, void **, void *arg3, void *arg4)
{
    if (op == AACENC_OP_INIT) {
        AacEncStreamInfo *const info = static_cast<AacEncInitParams *>(arg3)->streamInfo;
        info->sampleRate = 48000;
        info->samplesPerChannel = 16;
    } else if (op == AACENC_OP_ENCODE) {
        AacEncStreamInfo *const info = static_cast<AacEncStreamInfo *>(arg4);
        const Bytes frame = audio_frame(encoded_frames++);
        std::copy(frame.begin(), frame.end(), info->output);
        info->outputBytes = static_cast<int32_t>(frame.size());
    }
    return 0;
}

static void offer(IlClient &client, uint8_t port, Bytes data, uint64_t ms)
{
    OMX_BUFFERHEADERTYPE header = {};
    header.pBuffer = data.data();
    header.nAllocLen = header.nFilledLen = static_cast<OMX_U32>(data.size());
    header.nTimeStamp = static_cast<OMX_TICKS>(1000000 + 1000 * ms);
    private_record(client.handle())->ucBufferPort = port;
    omx_tdmbrec_component_BufferMgmtCallback(client.handle(), &header);
    ASSERT_EQ(header.nFilledLen, 0u);
}

static Bytes bytes_of(const Bytes &image, const mp4_reader::sample &sample, uint32_t from)
{
    const uint8_t *const data = image.data() + sample.offset;
    return {data + from, data + sample.size};
}

TEST_F(LongRecording, KeepsEveryEntryOfTablesThatOutgrowTheirCaches)
{
    host_set_log_level(8);
    const auto client = make_recorder();
    record_of(*client)->pfnAacEnc = tiny_encoder;
    encoded_frames = 0;
    offer(*client, 0, {0, 0, 0, 1, 9}, 0);
    for (uint32_t n = 0; n < kFrames && !HasFailure(); n++) {
        offer(*client, 0, picture(n), 1 + picture_ms(n));
        offer(*client, 1, Bytes(64), 1 + picture_ms(n));
    }
    for (const char *const table :
         {"v_stco", "v_stsz", "v_stss", "v_stts_dts", "a_stco", "a_stsz"}) {
        EXPECT_GT(std::filesystem::file_size(std::string("/mnt/sdcard/") + table + ".tmp"), 0u)
            << table;
    }
    client->stop();
    EXPECT_EQ(client->wait_for_end(), 1u);
    client->to_loaded();
    const Bytes image = read_file(kRecording);
    const mp4_reader::movie movie = mp4_reader::read_movie(image);
    ASSERT_EQ(first_fault(movie), "");
    const std::vector<mp4_reader::sample> &video = mp4_reader::find_track(movie, "vide")->samples;
    const std::vector<mp4_reader::sample> &audio = mp4_reader::find_track(movie, "soun")->samples;
    ASSERT_EQ(video.size(), kFrames);
    ASSERT_EQ(audio.size(), kFrames);
    for (uint32_t n = 0; n < kFrames; n++) {
        ASSERT_EQ(bytes_of(image, video[n], 4), unit_of(n)) << n;
        ASSERT_EQ(video[n].time, 90 * picture_ms(n)) << n;
        ASSERT_EQ(video[n].sync, n % 2 == 0) << n;
        ASSERT_EQ(bytes_of(image, audio[n], 0), audio_frame(n)) << n;
    }
}
