// Recordings that a real storage ends; their files play.
#include "platform/host/host_control.h"
#include "tests/support/programme_player.h"
#include "tests/support/recorder_test.h"

#include <filesystem>
#include <fstream>

class StopReason : public RecorderTest {
  protected:
    // Sends IDR pictures of about `bytes` each, padded with a filler data unit, until the recording
    // ends or `most` are sent.
    static void send_large_pictures(IlClient &client, size_t bytes, size_t most)
    {
        Bytes picture = sample_programme().access_units[0];
        const Bytes start_of_filler{0, 0, 0, 1, 12};
        picture.insert(picture.end(), start_of_filler.begin(), start_of_filler.end());
        picture.resize(bytes, 0xFF);
        picture.back() = 0x80;
        send_time_base(client);
        for (size_t i = 0; i < most && client.count(TDMBREC_EVENT_END_OF_RECORDING) == 0; i++) {
            client.send(TDMBREC_PORT_VIDEO, picture, video_time_us(i));
        }
    }
    static size_t video_samples(const mp4_reader::movie &movie)
    {
        return mp4_reader::find_track(movie, "vide")->samples.size();
    }
    // Fills a storage up to `left` bytes.
    static void fill(const std::string &path, uintmax_t left)
    {
        const uintmax_t room =
            std::filesystem::space(std::filesystem::path(path).parent_path()).available;
        std::ofstream file(path, std::ios::binary);
        const std::string block(65536, 'x');
        for (uintmax_t written = 0; written + left < room; written += block.size()) {
            file.write(block.data(), static_cast<std::streamsize>(block.size()));
        }
    }
};

TEST_F(StopReason, Is0WhenTheCardGoes)
{
    use_card();
    const auto client = start_recording(kCardFile);
    send_programme(*client, 60);
    host_set_property("qvr.sdcard.db.status", "removed");
    send_programme(*client, 1, 60);
    EXPECT_EQ(client->wait_for_end(), 0u);
    client->to_loaded();
    EXPECT_EQ(video_samples(expect_plays(kCardFile)), 60u);
}

TEST_F(StopReason, Is2WhenTheCardIsFull)
{
    host_set_property("qvr.sdcard.db.status", "available"); // a card of 64 MiB
    const auto client = start_recording(kCardFile);
    send_large_pictures(*client, 1000000, 100);
    EXPECT_EQ(client->wait_for_end(), 2u);
    client->to_loaded();
    // 14 MiB are free above the limit of 50; the muxer's cache delays the end.
    EXPECT_GE(video_samples(expect_plays(kCardFile)), 13u);
    std::filesystem::remove(kCardFile);
}

TEST_F(StopReason, Is4WhenTheFileCannotBeOpenedAnd7WhenTheComponentIsDestroyed)
{
    std::filesystem::create_directory(kBuiltInFile); // a folder has the file's name
    const auto client = start_recording();
    send_programme(*client, 2);
    EXPECT_EQ(client->wait_for_end(), 4u);
    std::filesystem::remove(kBuiltInFile);
    EXPECT_EQ(client->start(), OMX_ErrorNone); // after the failure
    send_programme(*client, 50);
    client->to_loaded(); // with the recording still active
    client->destroy();
    EXPECT_EQ(client->wait_for_end(0), 7u);
    EXPECT_EQ(video_samples(expect_plays()), 50u);
}

TEST_F(StopReason, Is5WhenAWriteFails)
{
    use_card(); // with more free space than there is
    const std::string filler = "/mnt/sdcard/tflash/filler";
    fill(filler, 5000000);
    // Makes room before the file is finished.
    on_log = [&](const LogLine &line) {
        if (line.text.find("Error:can't write file") != std::string::npos) {
            std::filesystem::remove(filler);
        }
    };
    const auto client = start_recording(kCardFile);
    send_large_pictures(*client, 1000000, 20);
    EXPECT_EQ(client->wait_for_end(), 5u);
    client->to_loaded();
    EXPECT_FALSE(std::filesystem::exists(filler));
    EXPECT_TRUE(has_logged("[omx_tdmbrec_component_BufferMgmtCallback:829] -270511 [-270511] "
                           "Error:can't write file(bs_write_bytes)<mp4_mux_putframe 0x"));
    const size_t samples = video_samples(expect_plays(kCardFile));
    EXPECT_GE(samples, 4u);
    EXPECT_LE(samples, 6u);
    std::filesystem::remove(kCardFile);
}
