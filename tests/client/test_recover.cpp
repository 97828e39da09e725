// Interrupted recordings come back through the command, with the journal and without it.
#include "mp4read/mp4_reader.h"
#include "tests/client/command_test.h"

#include <nlohmann/json.hpp>

namespace fs = std::filesystem;
using nlohmann::json;

#define RECOVER TDMBREC "recover "
#define LEFT "k.mp4.recording"
#define JOURNAL "recording.mp4.journal"

struct frame {
    uint64_t time;
    std::string bytes;
};

class RecoverCommand : public CommandTest {
  protected:
    std::string read_file(const std::string &name) const
    {
        std::ifstream file(directory / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    // returns: a track's frames; none from a file with a fault
    std::vector<frame> frames_of(const std::string &name, const char *handler) const
    {
        const std::string image = read_file(name);
        const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t *>(image.data()),
                                             image.size());
        const mp4_reader::movie movie = mp4_reader::read_movie(bytes);
        EXPECT_EQ(mp4_reader::first_fault(movie), "") << name;
        const mp4_reader::track *const track = mp4_reader::find_track(movie, handler);
        std::vector<frame> frames;
        for (const auto &each : track != nullptr && movie.faults.empty()
                                    ? track->samples
                                    : std::vector<mp4_reader::sample>()) {
            frames.push_back({each.time, image.substr(each.offset, each.size)});
        }
        return frames;
    }

    // Records the sample whole, and interrupts another recording of it by a limit for its size, at
    // once, or by a kill. The last group of its journal is then followed by frames, and the file
    // ends within a frame.
    void record_and_interrupt(bool is_killed = false)
    {
        const std::string record = RECORD "--checkpoint 0.5 " SAMPLE "-o k.mp4 ";
        const std::string kill =
            "{ " + record +
            "--realtime & p=$!; until [ $(stat -c %s " LEFT "/" JOURNAL " || echo 0) -gt 900 ]; do "
            "kill -0 $p || exit 1; sleep 0.05; done; kill -9 $p; wait $p; true; }";
        const command_result made =
            shell(RECORD SAMPLE "-o whole.mp4 && mkdir aside && mv whole.mp4 aside && " +
                  (is_killed ? kill : "(ulimit -f 300; " + record + "); [ -e " LEFT " ]"));
        if (made.status != 0) {
            GTEST_SKIP() << "no storage: " << made.err;
        }
    }
};

TEST_F(RecoverCommand, BringsAKilledRecordingBackExactly)
{
    record_and_interrupt(true);
    const std::string before = shell("cksum " LEFT "/*").out;
    const command_result result = shell(RECOVER LEFT);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(shell("cksum " LEFT "/*").out, before);
    const std::string note = shell(TDMBREC "info k.mp4").err;
    EXPECT_TRUE(contains(note, "; k.mp4 is complete, and may have been recovered from it\n"))
        << note;
    for (const char *const handler : {"vide", "soun"}) {
        const std::vector<frame> whole = frames_of("aside/whole.mp4", handler);
        const std::vector<frame> back = frames_of("k.mp4", handler);
        ASSERT_GT(back.size(), 40u);
        ASSERT_LE(back.size(), whole.size());
        for (size_t i = 0; i < back.size(); i++) {
            EXPECT_EQ(back[i].bytes, whole[i].bytes) << handler << i;
            if (*handler == 'v') { // sound frames have one duration, their mean
                EXPECT_EQ(back[i].time, whole[i].time) << i;
            }
        }
    }
    const auto configuration = [&](const std::string &name) {
        const std::string image = read_file(name);
        return image.substr(image.find("avcC"), 60);
    };
    EXPECT_EQ(configuration("k.mp4"), configuration("aside/whole.mp4"));
}

TEST_F(RecoverCommand, SaysWhatCameBackAndFromWhere)
{
    record_and_interrupt();
    const std::string media = "k/recording.mp4 ", alone = "rm k/" JOURNAL "; ";
    const std::string zero =
        "dd if=/dev/zero of=" + media + "bs=4096 seek=9 count=1 conv=notrunc; ";
    const std::string other_version =
        "printf '\\377' | dd of=k/" JOURNAL " bs=1 seek=5 conv=notrunc; ";
    const std::string as_left = "mv k o.mp4.recording; ";
    const std::string two =
        "mkdir k/l; mv k/r* k/l; cp -r k/l k/m.mp4.recording; mv k/l k/o.mp4.recording; ";
    const char *const now = ": is being recorded, or recovered by another command, now\n";
    const struct {
        std::string change; // of the folder k, a copy of what was left
        std::string line;
        int status;
        const char *output;   // empty: none is made
        const char *sentence; // in what the command prints
    } cases[] = {
        {as_left, "o.mp4.recording/", 0, "o.mp4", "\n  Times     exact, from the journal"},
        {as_left, "o.mp4.recording/recording.mp4", 0, "o.mp4", "configuration from the journal\n"},
        {as_left + "echo > o.mp4; ", "o.mp4.recording", 0, "o-recovered.mp4", "delete o.mp4.reco"},
        {as_left + "echo > o.mp4; cd o.mp4.recording; ", "recording.mp4", 0, "o-recovered.mp4", ""},
        {"", media + "-o o.mp4", 0, "o.mp4", " pictures and "},
        {"", "k", 0, "k/recording-recovered.mp4", "k/recording-recovered.mp4: "},
        {"truncate -s -70 " + media + "; ", media + "-o o.mp4", 0, "o.mp4", "\n  Cut       a "},
        {"head -c 4000 /dev/zero >> " + media + "; ", media + "-o o.mp4", 0, "o.mp4",
         "\n  Cut       data of no frame, "},
        {zero, media + "-o o.mp4", 21, "o.mp4", "\n  Hole      "},
        {zero, media + "--in-place", 4, "", "has holes, and can only be recovered to another file"},
        {other_version, media + "-o o.mp4 --like aside/whole.mp4", 0, "o.mp4",
         "Journal   of version 255, which"},
        {alone, media + "-o o.mp4", 4, "", "(--parameter-sets FILE), or be guessed (--guess)\n"},
        {alone, media + "-o o.mp4 --like aside/whole.mp4", 0, "o.mp4", "from aside/whole.mp4\n"},
        {alone + "cp aside/whole.mp4 k/; ", media + "-o o.mp4", 0, "o.mp4", "from k/whole.mp4\n"},
        {alone, media + "-o o.mp4 --parameter-sets programme.h264", 0, "o.mp4", "programme.h264\n"},
        {alone, media + "-o o.mp4 --parameter-sets programme.wav --guess", 22, "o.mp4",
         "programme.wav: holds no sequence and picture parameter set\n"},
        {alone + zero, media + "-o o.mp4 --guess", 23, "o.mp4", "colours may be wrong\n"},
        {"echo > o.mp4; ", media + "-o o.mp4", 5, "", "o.mp4: exists already"},
        {"echo > o.mp4; ", media + "-f -o o.mp4", 0, "o.mp4", ""},
        {"ulimit -f 100; ", media + "-o o.mp4", 5, "", "o.mp4: File too large\n"},
        {as_left + "flock o.mp4.recording ", "o.mp4.recording", 3, "", now},
        {"flock k ", media + "-o o.mp4", 3, "", now},
        {as_left + "ln -s o.mp4.recording/recording.mp4 o; flock -s o.mp4.recording ",
         "--in-place o", 3, "", now},
        {"flock -s " + media, media + "--in-place", 3, "", now},
        {"flock " + media, media + "-o o.mp4", 3, "", now},
        {as_left + "mkdir k; ln -s ../o.mp4.recording k/l.recording; ", "k/l.recording", 0, "o.mp4",
         "/o.mp4.recording when the file plays"},
        {as_left + "mkdir k; mv o.mp4.recording k; ln -s o.mp4.recording/recording.mp4 k/o; ",
         "--in-place k", 0, "k/o", ""},
        {"TMPDIR=missing ", media + "--in-place", 5, "", "(TMPDIR): No such file or directory\n"},
        {"mkdir t; export TMPDIR=t; p=t/tdmbrec-$(printf %s-%x $(stat -c '%D %i' " + media +
             ")).part; mkdir $p; touch $p/.tdmbrec $p/walk.tmp; ",
         media + "--in-place && rmdir t", 0, "", ""},
        {"", media + "--in-place --force", 2, "", "--force excludes --in-place\n"},
        {as_left + "cp aside/whole.mp4 o.mp4.recording/recording.mp4; ", "o.mp4.recording", 9, "",
         "to move it to its place: mv o.mp4.recording/recording.mp4 o.mp4; "},
        {two, "k", 0, "k/o.mp4", "k/m.mp4: "},
        {two, "k -o o.mp4", 2, "", "k: holds 2 recordings, and --output names only one file\n"},
        {"mkdir k/l; mv k/r* k/l; cp -r k/l k/o.mp4.recording-2; mv k/l k/o.mp4.recording; ",
         "-f k", 0, "k/o.mp4", "k/o-recovered.mp4: "},
        {two + "dd if=/dev/zero of=k/m.mp4.recording/recording.mp4 bs=4096 seek=9 count=1 "
               "conv=notrunc; ",
         "k", 21, "k/o.mp4", "\n  Hole      "},
        {"cp aside/whole.mp4 " + media + "; ", "k", 9, "", "journal is not needed any more\n"},
        {as_left + "mkdir k; mv o.mp4.recording k; chmod 0 k/o.mp4.recording; if [ $(id -u) = 0 ]; "
                   "then drop='setpriv --inh-caps=-all --bounding-set=-all'; fi; $drop ",
         "k", 3, "", "recording.mp4: cannot be opened: it may belong to another user\n"},
        {other_version, media + "--in-place --like aside/whole.mp4 && ls k/" JOURNAL, 0, "",
         "\nk/" JOURNAL "\n"},
        {other_version, media + "-o o.mp4", 4, "", JOURNAL ": of version 255, which"},
        {"rm k/*; ", "k", 9, "", "k: nothing to recover: no interrupted recording is in it\n"},
        {": > " + media + "; ", media, 3, "", "recording.mp4: no complete picture is in the reco"},
        {"", "programme.wav", 3, "", "programme.wav: the file is not one of the recorder\n"},
        {"", "/dev/null", 3, "", "/dev/null: is not a regular file\n"},
    };
    const std::string clean = "chmod -f 700 k/*; rm -rf k o*; cp -r " LEFT " k; ";
    for (const auto &[change, line, status, output, sentence] : cases) {
        const std::string all = clean + change + RECOVER + line;
        SCOPED_TRACE(all);
        const command_result result = shell(all);
        EXPECT_EQ(result.status, status);
        EXPECT_TRUE(contains(result.out + result.err, sentence)) << result.out << result.err;
        EXPECT_EQ(names().contains("o.mp4.part"), false);
        if (*output != '\0') {
            EXPECT_GT(frames_of(output, "vide").size(), 40u) << result.err;
        }
    }
}

TEST_F(RecoverCommand, FinishesAFileInPlace)
{
    record_and_interrupt();
    const command_result result = shell("truncate -s -9 " LEFT "/recording.mp4; "
                                        "cp -r " LEFT " o.mp4.recording; " RECOVER LEFT
                                        " && " RECOVER "--in-place o.mp4.recording");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(shell("cmp k.mp4 o.mp4.recording/recording.mp4 && ls o.mp4.recording").out,
              "recording.mp4\n");
    EXPECT_TRUE(contains(result.out, "move o.mp4.recording/recording.mp4 to")) << result.out;
    // Of the cut frame, only the message is left.
    const size_t cut = result.out.find("  Cut  ");
    ASSERT_NE(cut, std::string::npos);
    const std::string line = result.out.substr(cut, result.out.find('\n', cut) - cut);
    EXPECT_TRUE(contains(result.out.substr(cut + line.size()), line)) << result.out;
}

TEST_F(RecoverCommand, PrintsAllOfItAsJson)
{
    record_and_interrupt();
    const std::string media = LEFT "/recording.mp4";
    shell("for at in 5 20; do dd if=/dev/zero of=" + media +
          " bs=4096 seek=$at count=1 conv=notrunc; done; truncate -s -9 " + media);
    const command_result result = shell(RECOVER "--json " LEFT);
    EXPECT_EQ(result.status, 21) << result.err;
    const json report = json::parse(result.out, nullptr, false);
    ASSERT_TRUE(report.is_object() && report["recordings"].size() == 1) << result.out;
    EXPECT_EQ(report["exit_status"], 21);
    const json &one = report["recordings"][0];
    EXPECT_EQ(one["source"], media);
    EXPECT_EQ(one["output"], "k.mp4");
    EXPECT_EQ(one["pictures"], frames_of("k.mp4", "vide").size());
    EXPECT_EQ(one["sounds"], frames_of("k.mp4", "soun").size());
    EXPECT_EQ(one["bytes"], fs::file_size(directory / "k.mp4"));
    EXPECT_EQ(one["journal"]["state"], "used");
    EXPECT_EQ(one["configuration"]["from"], "the journal");
    ASSERT_EQ(one["holes"].size(), 2u);
    EXPECT_LE(one["holes"][0]["offset"], 5 * 4096);
    EXPECT_GE(one["holes"][0]["bytes"], 4096);
    const int64_t all = one["media_bytes"].get<int64_t>() + one["hole_bytes"].get<int64_t>() +
                        one["cut"]["bytes"].get<int64_t>();
    EXPECT_EQ(one["source_bytes"], all + 36);
    const json missing = json::parse(shell(RECOVER "--json missing").out, nullptr, false);
    EXPECT_EQ(missing, json({{"recordings", json::array()},
                             {"error", "missing: No such file or directory"},
                             {"exit_status", 3}}));
    const json failed = json::parse(shell(RECOVER "--json k.mp4").out, nullptr, false);
    EXPECT_EQ(failed["recordings"][0]["error"], "k.mp4: nothing to recover: the file is finished");
}

TEST_F(RecoverCommand, GuessesEveryCodingAndRefusesThatOfAnotherChannel)
{
    const struct {
        const char *size, *coding;
        const char *guess;
    } cases[] = {
        {"320x240", "-profile:v baseline -refs 3", "a guess of 320 x 240 pixels: "},
        {"176x144", "-profile:v baseline -preset ultrafast", "a guess of 176 x 144 pixels: "},
        {"352x288", "-profile:v main -qp 20", "a guess of 352 x 288 pixels: "},
        {"320x240", "-profile:v high -slices 2", "a guess of 320 x 240 pixels: "},
        {"480x320", "-profile:v baseline", "a guess of 480 x 320 pixels: "},
    };
    for (const auto &[size, coding, guess] : cases) {
        SCOPED_TRACE(coding);
        const command_result made =
            shell("rm -f w.mp4 b.mp4 c.mp4; ffmpeg -nostdin -v error -y -f lavfi -i mandelbrot=s=" +
                  std::string(size) + " -t 1.6 -pix_fmt yuv420p -c:v libx264 -bf 0 " + coding +
                  " v.h264 && " RECORD "--video v.h264 --audio programme.wav -o w.mp4 && "
                  "head -c $(($(grep -abo moov w.mp4 | cut -d : -f 1) - 4)) w.mp4 > b.mp4 && "
                  "printf '\\0\\0\\0\\0' | dd of=b.mp4 bs=1 seek=28 conv=notrunc && mkdir -p a && "
                  "mv w.mp4 a");
        if (made.status != 0) {
            GTEST_SKIP() << "no ffmpeg that makes the inputs, or no storage: " << made.err;
        }
        const command_result refused =
            shell("mkdir -p s; " TDMBREC "mux --video programme.h264 -f -o s/s.mp4; " RECOVER
                  "b.mp4 -o c.mp4 --like s/s.mp4");
        EXPECT_EQ(refused.status, 4) << refused.out;
        EXPECT_TRUE(contains(refused.err, "s/s.mp4: its decoder configuration is not that of the "))
            << refused.err;
        // A finished recording of another channel in the same folder is refused as well.
        const command_result neighbour =
            shell("cp s/s.mp4 .; " RECOVER "b.mp4 -o c.mp4; s=$?; rm s.mp4; exit $s");
        EXPECT_EQ(neighbour.status, 4) << neighbour.out;
        EXPECT_TRUE(contains(neighbour.err, ": s.mp4: its decoder configuration is not that of "))
            << neighbour.err;
        const command_result result = shell(RECOVER "b.mp4 -o c.mp4 --guess");
        EXPECT_EQ(result.status, 22) << result.err;
        EXPECT_TRUE(contains(result.out, guess)) << result.out;
        // The guess in the new file does not become the finding of the next recovery.
        const command_result next = shell(RECOVER "b.mp4 -o d.mp4");
        EXPECT_EQ(next.status, 4) << next.out;
        EXPECT_TRUE(contains(next.err, ": c.mp4: its decoder configuration is a guess; not used\n"))
            << next.err;
        EXPECT_EQ(
            shell(RECOVER "b.mp4 -f -o d.mp4 --like c.mp4; s=$?; rm -f d.mp4; exit $s").status, 22);
        // All pictures decode, not only those that the guess was tried with.
        const command_result decoded = ffmpeg("-i c.mp4 -f null -");
        EXPECT_TRUE(decoded.status == 0 && decoded.err.empty()) << decoded.err;
    }
}

TEST_F(RecoverCommand, LeavesNothingWhenStopped)
{
    const command_result made = shell(
        RECORD SAMPLE
        "-o w.mp4 && { head -c 571124 w.mp4 > media && printf "
        "'\\0\\0\\0\\0' | dd of=media bs=1 seek=28 conv=notrunc && tail -c +37 media > more && "
        "cp media b.mp4 && for i in $(seq 200); do cat more; done >> b.mp4 && rm media more; }");
    if (made.status != 0) {
        GTEST_SKIP() << "no storage: " << made.err;
    }
    const name_set before = names();
    const command_result stopped =
        shell(RECOVER "b.mp4 & p=$!; until [ -e b-recovered.mp4.part ]; do "
                      "kill -0 $p || break; done; kill -TERM $p; wait $p");
    EXPECT_EQ(stopped.status, 143) << stopped.out;
    EXPECT_TRUE(contains(stopped.err, "tdmbrec: stopped; no file is made\n")) << stopped.err;
    EXPECT_EQ(names(), before);
}

TEST_F(RecoverCommand, HasALibraryWhoseExampleCompiles)
{
    const std::string root = source_file("");
    const command_result compiled =
        shell("sed -n '/^```c$/,/^```$/{/^```/d;p}' " + root +
              "docs/recovery.md > example.c; [ -s example.c ] "
              "&& ${CC:-cc} -std=gnu99 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I " +
              root + " example.c");
    EXPECT_EQ(compiled.status, 0) << compiled.err;
}
