#include "component/time_line.h"

#include "component/process_state.h"
#include "tests/support/component_test.h"

#include <algorithm>
#include <cstdint>
#include <optional>

class TimeLine : public ComponentTest {
  protected:
    std::optional<uint32_t> map(uint8_t port, int64_t ts_us)
    {
        record_.ucBufferPort = port;
        uint32_t time_ms = 0;
        return map_time_stamp(&record_, ts_us, &time_ms) ? std::optional(time_ms) : std::nullopt;
    }
    std::optional<uint32_t> video(int64_t ts_us)
    {
        const std::optional<uint32_t> time_ms = map(TDMBREC_PORT_VIDEO, ts_us);
        note_video_time(&record_, *time_ms);
        return time_ms;
    }
    std::optional<uint32_t> audio(int64_t ts_us)
    {
        return map(TDMBREC_PORT_AUDIO, ts_us);
    }

    omx_tdmbrec_component_PrivateType record_ = [] {
        omx_tdmbrec_component_PrivateType record = {};
        record.ucVideoIntervalState = 0xFF;
        record.uiAudioFrameMs = 21;
        return record;
    }();
};

TEST_F(TimeLine, CountsFromTheFirstVideoAndDropsAudioBeforeIt)
{
    EXPECT_EQ(audio(5000000), std::nullopt);
    EXPECT_EQ(video(5000000), 0u);
    EXPECT_EQ(audio(4999999), std::nullopt);
    EXPECT_EQ(audio(5021333), 21u);
    EXPECT_EQ(video(5033999), 33u);
}

TEST_F(TimeLine, ContinuesOneFrameAfterTheLastTimeWhenAClockJumpsBack)
{
    (void)video(5000000);
    (void)video(5040000);
    EXPECT_EQ(video(5080000), 80u);
    EXPECT_EQ(video(3000000), 120u); // 80 and the interval of 40
    EXPECT_EQ(record_.ucVideoRollbackCount, 1);
    EXPECT_EQ(video(3040000), 160u);
    EXPECT_EQ(audio(5060000), 60u) << "the other kind is not affected";
    record_.uiLastAudioPts = 60;
    EXPECT_EQ(audio(5010000), 81u); // 60 and a frame of 21
    EXPECT_EQ(record_.ucAudioRollbackCount, 1);
    EXPECT_EQ(audio(4999999), std::nullopt) << "before the base of the rollback";
}

TEST_F(TimeLine, LogsEveryRollback)
{
    (void)video(5000000);
    (void)video(5040000);
    (void)video(5000000);
    const std::string ruler(80, '#');
    std::vector<std::string> lines;
    for (const LogLine &line : log()) {
        EXPECT_EQ(line.priority, 4);
        EXPECT_EQ(line.tag, "OMX_TDMB_REC");
        lines.push_back(line.text.substr(0, line.text.find_last_not_of('\n') + 1));
    }
    EXPECT_EQ(lines, (std::vector<std::string>{ruler, "BACKUP_VIDEO_PTS : 40",
                                               "VIDEO_ROLLBACK_COUNT : 1", ruler}));
}

TEST_F(TimeLine, SaturatesInsteadOfWrapping)
{
    EXPECT_EQ(video(1), 0u);
    EXPECT_EQ(video(INT64_MAX), UINT32_MAX);
    EXPECT_EQ(video(2), UINT32_MAX);
    for (int i = 0; i < 600; i++) { // a count that wrapped to 0 would lose the rollback
        (void)video(i % 2 == 0 ? 100000 : 1);
    }
    EXPECT_EQ(record_.ucVideoRollbackCount, UINT8_MAX);
    record_ = {};
    EXPECT_EQ(video(INT64_MIN), 0u);
    EXPECT_EQ(video(INT64_MAX), UINT32_MAX);
}

TEST_F(TimeLine, PublishesTheVideoTimesInSegmentsBetweenGaps)
{
    global_uc_write_index = 49;
    (void)video(1000000);
    EXPECT_EQ(record_.ucVideoIntervalState, 0xFF) << "no distance yet";
    (void)video(1033000);
    EXPECT_EQ(record_.uiVideoIntervalMs, 33u);
    (void)video(1099000); // 66 ms is no gap
    EXPECT_EQ(global_uc_write_index, 49);
    EXPECT_EQ(global_ui_VIDEO_PTS[49][0], 99u);
    (void)video(1166000); // 67 ms is
    EXPECT_EQ(global_uc_write_index, 0);
    EXPECT_EQ(global_ui_VIDEO_PTS[49][1], 99u);
    EXPECT_EQ(global_ui_VIDEO_PTS[0][0], 166u);
}
