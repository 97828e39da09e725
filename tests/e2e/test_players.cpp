// The recorded sample in independent players.
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
};

TEST_F(Players, PlayItToTheEndWithoutAMessage)
{
    const std::string file = kBuiltInFile;
    const std::pair<std::string, std::string> players[] = {
        {"gst-launch-1.0",
         " -q filesrc location=" + file +
             " ! qtdemux name=d  d.video_0 ! queue ! h264parse ! avdec_h264 ! fakesink sync=false "
             " d.audio_0 ! queue ! aacparse ! avdec_aac ! fakesink sync=false"},
        {"mpv",
         " --no-config --vo=null --ao=null --untimed --speed=100 --msg-level=all=warn " + file},
        {"faad", " -q -o /dev/null " + file}};
    std::string missing;
    for (const auto &[program, arguments] : players) {
        if (!is_installed(program)) {
            missing += " " + program;
            continue;
        }
        const auto [status, output] = run("HOME=/mnt/sdcard " + program + arguments + " 2>&1");
        EXPECT_EQ(status, 0) << program;
        EXPECT_EQ(std::string(output.begin(), output.end()), "") << program;
    }
    if (!missing.empty()) {
        GTEST_SKIP() << "not installed:" << missing;
    }
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
v.onerror = () => console.log('page-result: error ' + v.error.code + ' ' + v.error.message);
v.onended = () => console.log('page-result: ended ' + v.videoWidth + 'x' + v.videoHeight
    + ' corrupted ' + v.getVideoPlaybackQuality().corruptedVideoFrames
    + ' audio ' + (v.webkitAudioDecodedByteCount > 0));
v.playbackRate = 4;
v.play();
</script>)";
    // The browser runs until it is killed; the page reports through its log.
    const Bytes output =
        run("cd /mnt/sdcard; HOME=/mnt/sdcard chromium --headless --no-sandbox --disable-gpu "
            "--disable-quic --no-first-run --disable-background-networking "
            "--disable-component-update "
            "--disable-sync --autoplay-policy=no-user-gesture-required --enable-logging=stderr "
            "--user-data-dir=/mnt/sdcard/profile file:///mnt/sdcard/player.html > log 2>&1 & "
            "pid=$!; cd /mnt/sdcard; "
            "for i in $(seq 3000); do grep -q 'page-result:' log && break; sleep 0.1; done; "
            "kill $pid; wait $pid; grep -o 'page-result: [^\"]*' log")
            .second;
    const std::string result(output.begin(), output.end());
    EXPECT_EQ(result.substr(0, result.find_first_of("\n,\"")),
              "page-result: ended 320x240 corrupted 0 audio true")
        << result;
}
