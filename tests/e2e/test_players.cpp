// The sample's recording in the hands of players that nobody here wrote.
#include "tests/support/judges.h"
#include "tests/support/programme_player.h"
#include "tests/support/recorder_test.h"

#include <fstream>

class Players : public RecorderTest {
  protected:
    void SetUp() override
    {
        RecorderTest::SetUp();
        const auto client = start_recording();
        send_programme(*client, 90);
        ASSERT_EQ(finish(*client), 1u);
    }

    static bool is_installed(const std::string &program)
    {
        return run("command -v " + program + " > /dev/null").first == 0;
    }

    static std::string text_of(const std::string &command, int *status)
    {
        const auto [code, output] = run(command);
        *status = code;
        return std::string(output.begin(), output.end());
    }
};

TEST_F(Players, FfmpegSaysNothing)
{
    if (!has_ffmpeg()) {
        GTEST_SKIP() << "ffmpeg is not installed";
    }
    EXPECT_EQ(complaints_of_ffmpeg(BUILT_IN_FILE), "");
}

TEST_F(Players, GstreamerDecodesBothStreamsToTheirEnd)
{
    if (!is_installed("gst-launch-1.0")) {
        GTEST_SKIP() << "GStreamer is not installed";
    }
    int status = 0;
    const std::string output = text_of(
        std::string("gst-launch-1.0 -q filesrc location=") + BUILT_IN_FILE +
            " ! qtdemux name=d  d.video_0 ! queue ! h264parse ! avdec_h264 ! fakesink sync=false "
            " d.audio_0 ! queue ! aacparse ! avdec_aac ! fakesink sync=false 2>&1",
        &status);
    EXPECT_EQ(status, 0) << output;
    EXPECT_EQ(output.find("WARN"), std::string::npos) << output;
    EXPECT_EQ(output.find("ERROR"), std::string::npos) << output;
}

TEST_F(Players, MpvPlaysItToTheEnd)
{
    if (!is_installed("mpv")) {
        GTEST_SKIP() << "mpv is not installed";
    }
    int status = 0;
    const std::string output =
        text_of(std::string("HOME=/mnt/sdcard mpv --no-config --vo=null --ao=null --untimed "
                            "--speed=100 --msg-level=all=warn ") +
                    BUILT_IN_FILE + " 2>&1",
                &status);
    EXPECT_EQ(status, 0) << output;
    EXPECT_EQ(output, "");
}

TEST_F(Players, ChromiumPlaysIt)
{
    if (!is_installed("chromium")) {
        GTEST_SKIP() << "Chromium is not installed";
    }
    std::ofstream("/mnt/sdcard/player.html") << R"(<!doctype html>
<video id="v" muted src="recording.mp4"></video>
<script>
const v = document.getElementById('v');
v.onerror = () => console.log('said: error ' + v.error.code + ' ' + v.error.message);
v.onended = () => console.log('said: ended ' + v.videoWidth + 'x' + v.videoHeight
    + ' corrupted ' + v.getVideoPlaybackQuality().corruptedVideoFrames
    + ' audio ' + (v.webkitAudioDecodedByteCount > 0));
v.playbackRate = 4;
v.play();
</script>)";
    // The browser runs until it is told to go; what the page says comes through its log.
    int status = 0;
    const std::string said = text_of(
        "cd /mnt/sdcard; HOME=/mnt/sdcard chromium --headless --no-sandbox --disable-gpu "
        "--disable-quic --no-first-run --disable-background-networking --disable-component-update "
        "--disable-sync --autoplay-policy=no-user-gesture-required --enable-logging=stderr "
        "--user-data-dir=/mnt/sdcard/profile file:///mnt/sdcard/player.html > log 2>&1 & pid=$!; "
        "cd /mnt/sdcard; for i in $(seq 600); do grep -q 'said:' log && break; sleep 0.1; done; "
        "kill $pid; wait $pid; grep -o 'said: [^\"]*' log",
        &status);
    EXPECT_EQ(said.substr(0, said.find_first_of("\n,\"")),
              "said: ended 320x240 corrupted 0 audio true")
        << said;
}
