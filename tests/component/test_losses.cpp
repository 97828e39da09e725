// The line of the log that reports what a recording has lost.
#include "aacenc/aac_enc.h"
#include "platform/host/host_control.h"
#include "tests/support/component_test.h"
#include "tests/support/programme.h"
#include "tests/support/programme_player.h"
#include "tests/support/wrapped_calls.h"

#include <functional>

using Step = std::function<void(IlClient &)>;

struct LossRow {
    std::vector<Step> steps;
    std::string line; // of the log; empty: none
};

static Bytes sets_alone()
{
    std::vector<Bytes> units = split_nal_units(sample_programme().access_units[0]);
    units.pop_back();
    return join_nal_units(units);
}

static Step video(const Bytes &data, int64_t ms)
{
    return [=](IlClient &client) { client.send(TDMBREC_PORT_VIDEO, data, 1000000 + 1000 * ms); };
}

static Step sound(int64_t ms, size_t bytes = kPcmBufferBytes)
{
    return [=](IlClient &client) {
        client.send(TDMBREC_PORT_AUDIO, Bytes(bytes, 7), 1000000 + 1000 * ms);
    };
}

static Step refuse_frames()
{
    return [](IlClient &) { set_put_result(-1, 0); };
}

static Step fail_next_allocation()
{
    return [](IlClient &) { host_fail_call(kHostCallMalloc, 0, 1); };
}

static int encoder_failures;

// Fails twice to open and three times to encode.
static int32_t failing_encoder(int32_t op, void **handle, void *arg3, void *arg4)
{
    const int last_failure = op == AACENC_OP_INIT ? 2 : op == AACENC_OP_ENCODE ? 5 : 0;
    if (encoder_failures < last_failure) {
        encoder_failures++;
        return -1;
    }
    return QVR_AAC_ENC(op, handle, arg3, arg4);
}

class Losses : public ComponentTest {
  protected:
    static Step use_failing_encoder()
    {
        encoder_failures = 0;
        return [](IlClient &client) { record_of(client)->pfnAacEnc = failing_encoder; };
    }
    static Step offer_beyond_its_allocation()
    {
        return [](IlClient &client) {
            OMX_BUFFERHEADERTYPE header = {};
            header.nFilledLen = 1;
            omx_tdmbrec_component_BufferMgmtCallback(client.handle(), &header);
        };
    }
    std::string take_line()
    {
        std::string lines;
        for (const LogLine &line : log()) {
            if (line.text.starts_with("lost: ") || line.text.starts_with("repaired: ")) {
                EXPECT_EQ(line.priority, 5);
                lines += line.text;
            }
        }
        const std::string line = lines.substr(seen_bytes_);
        seen_bytes_ = lines.size();
        return line;
    }

  private:
    size_t seen_bytes_ = 0;
};

TEST_F(Losses, AreCountedInOneLineAndOnlyThoseOfTheirRecording)
{
    const Bytes key_picture = sample_programme().access_units[0]; // with parameter sets
    const Bytes picture = sample_programme().access_units[1];
    const Bytes short_sps = {0, 0, 0, 1, 0x67, 66, 192};
    Bytes large_sps(5000, 9);
    std::copy_n(key_picture.begin(), 5, large_sps.begin());
    Bytes short_code = picture;
    short_code.erase(short_code.begin());
    const Step base = video({0, 0, 0, 1, 9, 0xF0}, -100);
    const std::vector<LossRow> rows = {
        {{[](IlClient &client) { send_programme(client, 40); }}, ""},
        {{sound(0), base, video(picture, 40), sound(80), sound(-120), video(key_picture, 120),
          sound(119), sound(120)},
         "lost: 1 picture before the first parameter sets, 3 sound buffers before the first "
         "picture, 1 sound buffer with a time before the recording\n"},
        {{base, video(key_picture, -100), video(picture, 40), video(key_picture, 80)},
         "lost: 1 picture before the first parameter sets, 1 picture at time 0\n"},
        {{base, video(sets_alone(), 40), sound(40, kPcmBufferBytes / 2), video(picture, 80),
          sound(80, kPcmBufferBytes / 2)},
         "lost: 1 sound frame before the first picture\n"},
        {{base, video(short_sps, 40), video(large_sps, 40), video({1, 2}, 40),
          video(key_picture, 40), fail_next_allocation(), video(short_code, 80),
          offer_beyond_its_allocation()},
         "lost: 1 picture for lack of memory, 1 video buffer without an access unit, 2 parameter "
         "sets not kept, 1 buffer with a length beyond the allocation\n"},
        {{base, video(key_picture, 40), use_failing_encoder(), sound(40), sound(61), sound(82),
          sound(103), sound(90), video(picture, 30), video(picture, 5000000000)},
         "lost: 3 sound frames not encoded, 2 failures to open the audio encoder; repaired: 1 jump "
         "back of the video clock, 1 jump back of the audio clock, 1 time beyond 32 bits of ms\n"},
        {{base, video(key_picture, 40), refuse_frames(), video(picture, 80)},
         "lost: 1 picture refused by the muxer\n"},
        {{base, video(key_picture, 40), refuse_frames(), sound(40)},
         "lost: 1 sound frame refused by the muxer\n"},
        {{base, video(key_picture, 40), sound(40)}, ""},
    };
    const auto client = make_client();
    client->to_executing();
    client->set_path(kRecording);
    for (const LossRow &row : rows) {
        reset_wrapped_calls();
        EXPECT_EQ(client->start(), OMX_ErrorNone);
        for (const Step &step : row.steps) {
            step(*client);
        }
        client->stop();
        EXPECT_TRUE(client->wait_for_end().has_value());
        EXPECT_EQ(take_line(), row.line);
    }
    client->to_loaded();
}
