// Picture and sound across clock jumps and losses. Programmes that flash and beep once a second are
// recorded, and both are found in the decoded recording.
#include "tests/client/command_test.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

static constexpr size_t kPacketBytes = 188;
static constexpr double kPictureMs = 1000.0 / 30;
// The flash and the beep of a second have the same one of five levels.
static constexpr double kLoudnessStep = 0.15 * 32768;
static constexpr double kBrightnessStep = 40 * 255.0 / 219; // from limited to full range

struct event {
    double time_s;
    long level;
};

struct part {
    double video_s, audio_s; // of ten seconds of the programme
    double clock_s;          // at its begin
};

struct clock_case {
    const char *name;
    std::vector<part> parts;
    int jumps;
    bool loses = false; // packets of the sound
};

static const clock_case clock_cases[] = {
    {"no jump", {{8, 8, 10}}, 0},
    {"join", {{8, 8, 10}, {8, 8, 10}}, 1},
    {"hours ahead, sound ends first", {{8, 7.2, 0}, {8, 8, 3600}}, 1},
    {"hours back, picture ends first", {{6, 8, 9000}, {8, 8, 10}}, 1},
    {"sound ends 2 s first", {{8, 6, 100}, {8, 8, 0}}, 1},
    {"new clock within what the sound lost", {{8, 7, 10}, {8, 8, 17.4}}, 1},
    {"new clock where the sound ended", {{8, 6, 10}, {8, 8, 16}}, 1},
    {"new clock where the picture ended", {{7, 8, 10}, {8, 8, 17}}, 1},
    {"seconds ahead", {{8, 7.2, 10}, {8, 8, 21}}, 0},
    {"ahead by what the picture takes for a jump", {{7.2, 8, 10}, {8, 8, 27.5}}, 1},
    {"end of the 33 bits", {{8, 8, 95435}, {8, 8, 95443}}, 0},
    {"back over the end of the 33 bits", {{8, 7.2, 1}, {8, 8, 95440}}, 1},
    {"five", {{8, 7.2, 0}, {6, 8, 99}, {8, 6, 9}, {8, 7, 12}, {7.5, 8, 50000}, {8, 8, 7}}, 5},
    {"sound out for longer", {{8, 2, 3600}, {8, 8, 0}}, 1},
    {"losses", {{8, 8, 10}, {8, 8, 18}, {8, 8, 0}}, 1, true},
};

// Leaves out TS packets of the sound, the second stream, but none around a beep.
static std::string lose_packets(const std::string &stream, double seconds)
{
    std::vector<size_t> sound;
    for (size_t at = 0; at < stream.size(); at += kPacketBytes) {
        if ((stream[at + 1] & 0x1F) == 1 && stream[at + 2] == 1) {
            sound.push_back(at);
        }
    }
    std::string left = stream;
    for (size_t i = sound.size(); i-- > 0;) {
        const double phase =
            std::fmod(seconds * static_cast<double>(i) / static_cast<double>(sound.size()), 1);
        if (i % 9 == 0 && (phase < 0.44 || phase > 0.65)) {
            left.erase(sound[i], kPacketBytes);
        }
    }
    return left;
}

class SharedClock : public CommandTest {
  protected:
    void SetUp() override
    {
        CommandTest::SetUp();
        const command_result made = ffmpeg(
            "-f lavfi -i \"color=black:s=160x120:r=30:d=60,geq=cb=128:cr=128:lum='if("
            "between(mod(T\\,1)\\,0.4999\\,0.5999)\\,75+40*mod(floor(T)\\,5)\\,16)'\" "
            "-f lavfi -i \"aevalsrc='if(between(mod(t,1),0.5,0.6),0.15*(1+mod(floor(t),5))"
            "*sin(2000*PI*t),0)':s=48000:d=60\" -c:v libx264 -g 1 -bf 0 -pix_fmt yuv420p -c:a mp2 "
            "-b:a 128k programme.mkv");
        if (made.status != 0 || shell(RECORD "" SAMPLE "-o out.mp4").status == 6) {
            GTEST_SKIP() << "no ffmpeg here, or no storage: " << made.err;
        }
    }

    void make_in_ts(const clock_case &which)
    {
        std::ostringstream inputs;
        std::ostringstream outputs;
        for (size_t i = 0; i < which.parts.size(); i++) {
            const part &part = which.parts[i];
            inputs << "-ss " << 10 * i << " -t " << part.video_s << " -i programme.mkv -ss "
                   << 10 * i << " -t " << part.audio_s << " -i programme.mkv ";
            outputs << " -map " << 2 * i << ":v -map " << 2 * i + 1 << ":a -c copy -f mpegts "
                    << "-output_ts_offset " << part.clock_s << " part" << i;
        }
        ASSERT_EQ(ffmpeg(inputs.str() + outputs.str()).err, "");
        std::ofstream whole(directory / "in.ts", std::ios::binary);
        for (size_t i = 0; i < which.parts.size(); i++) {
            const std::string stream = take_text(directory / ("part" + std::to_string(i)));
            whole << (which.loses ? lose_packets(stream, which.parts[i].audio_s) : stream);
        }
    }

    // Decodes out.mp4 into pictures, a byte each, and sound.
    void decode()
    {
        ASSERT_EQ(ffmpeg("-i out.mp4 -map 0:v -vsync passthrough -vf scale=1:1,format=gray -f "
                         "rawvideo pictures -map 0:a -ac 1 -f s16le sound")
                      .status,
                  0);
    }

    std::vector<event> flashes()
    {
        std::istringstream times(shell("ffprobe -v error -select_streams v -show_entries "
                                       "packet=pts_time -of csv=p=0 out.mp4")
                                     .out);
        std::vector<event> found;
        bool is_dark = true;
        for (const char picture : take_text(directory / "pictures")) {
            const int light = static_cast<unsigned char>(picture);
            std::string time;
            std::getline(times, time);
            if (light > 50 && is_dark) {
                found.push_back({std::stod(time), std::lround((light - 22) / kBrightnessStep)});
            }
            is_dark = light <= 50;
        }
        return found;
    }

    std::vector<event> beeps()
    {
        const std::string bytes = take_text(directory / "sound");
        std::vector<int16_t> sound(bytes.size() / 2);
        std::memcpy(sound.data(), bytes.data(), sound.size() * 2);
        std::vector<event> found;
        for (size_t i = 0; i + 4800 < sound.size(); i++) {
            if (std::abs(sound[i]) > 1500) {
                const auto begin = sound.begin() + static_cast<ptrdiff_t>(i);
                const int peak = *std::max_element(begin + 960, begin + 3840);
                found.push_back(
                    {static_cast<double>(i) / 48000, std::lround(peak / kLoudnessStep)});
                i += 9600;
            }
        }
        return found;
    }

    // The times from each flash to its beep, unless one of them was cut off.
    std::vector<double> offsets_ms()
    {
        std::vector<double> found;
        decode();
        const std::vector<event> all_beeps = beeps();
        for (const event &flash : flashes()) {
            const auto beep =
                std::find_if(all_beeps.begin(), all_beeps.end(), [&](const event &sound) {
                    return sound.level == flash.level &&
                           std::abs(sound.time_s - flash.time_s) < 2.4;
                });
            if (beep != all_beeps.end()) {
                found.push_back((beep->time_s - flash.time_s) * 1000);
            }
        }
        return found;
    }
};

TEST_F(SharedClock, KeepsPictureAndSoundTogetherAcrossJumpsAndLosses)
{
    for (const clock_case &which : clock_cases) {
        SCOPED_TRACE(which.name);
        make_in_ts(which);
        const command_result result = shell(RECORD "in.ts -f -o out.mp4");
        ASSERT_EQ(result.status, 0) << result.err;
        const std::string jumps = "jumps of the clock closed: " + std::to_string(which.jumps);
        EXPECT_EQ(contains(result.out, "jumps"), which.jumps > 0) << result.out;
        EXPECT_EQ(contains(result.out, jumps), which.jumps > 0) << result.out;
        const std::vector<double> found = offsets_ms();
        EXPECT_GE(found.size(), 2 + 6 * (which.parts.size() - 1));
        for (size_t i = 0; i < found.size(); i++) {
            EXPECT_NEAR(found[i], found[i > 0 ? i - 1 : 0], kPictureMs) << i;
            EXPECT_NEAR(found[i], found[0], 40) << i;
        }
    }
}
