// The report on intact, damaged and hostile files.
#include "client/report/figures.h"
#include "client/report/info_page.h"
#include "client/report/info_text.h"
#include "tests/client/command_test.h"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>

using bytes = std::vector<uint8_t>;
using nlohmann::json;
using namespace std::string_literals;

class InfoCommand : public CommandTest {
  protected:
    void SetUp() override
    {
        CommandTest::SetUp();
        shell(TDMBREC "encode programme.wav -o in.aac");
        shell(TDMBREC "mux --video programme.h264 --audio in.aac -o a.mp4");
        std::ifstream file(directory / "a.mp4", std::ios::binary);
        whole.assign(std::istreambuf_iterator<char>(file), {});
        ASSERT_GT(whole.size(), 500000u);
    }

    // returns: the report as text; the other forms are made as well
    static std::string report_on(std::span<const uint8_t> image)
    {
        const media_report report = media_report_make("name", image);
        EXPECT_TRUE(info_page(report).ends_with("</html>\n"));
        EXPECT_TRUE(info_json(report).ends_with("}\n"));
        return info_text(report);
    }

    // returns: the position after the n-th type field with these characters
    size_t after(const std::string &type, unsigned number = 0) const
    {
        auto at = std::search(whole.begin(), whole.end(), type.begin(), type.end());
        for (; number > 0; number--) {
            at = std::search(at + 4, whole.end(), type.begin(), type.end());
        }
        return static_cast<size_t>(at - whole.begin()) + 4;
    }

    // returns: measurements of the report's page, shown by a browser 400 pixels wide
    json show_on_a_telephone()
    {
        std::string page = shell(TDMBREC "info a.mp4 --html").out;
        // The browser must report whatever the page tries to load.
        page.insert(page.find("<head>") + 6, R"(<meta http-equiv="Content-Security-Policy"
        content="default-src 'none'; style-src 'unsafe-inline'">)");
        std::ofstream(directory / "page.html") << page;
        std::ofstream(directory / "telephone.html") << R"(<!doctype html>
<iframe src="page.html" style="width: 400px; border: 0"></iframe>
<script>
onload = () => {
    const page = frames[0].document, width = frames[0].innerWidth;
    const all = selector => [...page.querySelectorAll(selector)];
    const extents = selector => all(selector).map(each => each.getBBox());
    document.body.textContent = JSON.stringify({
        width: width,
        needed: page.documentElement.scrollWidth,
        beside: all('*').filter(each => each.getBoundingClientRect().right > width).length,
        charts: extents('svg').filter(of => of.width > 250 && of.height > 50).length,
        bars: extents('rect').filter(of => of.width > 0 && of.height > 0).length,
        text: all('p, td').map(each => each.textContent).join('\n')});
};
</script>)";
        const command_result shown = shell(
            "HOME=$PWD timeout 600 chromium --headless --no-sandbox --disable-gpu --disable-quic "
            "--no-first-run --disable-background-networking --disable-component-update "
            "--disable-sync --hide-scrollbars --allow-file-access-from-files "
            "--enable-logging=stderr --user-data-dir=$PWD/profile "
            "--dump-dom file://$PWD/telephone.html");
        EXPECT_EQ(shown.status, 0) << shown.err;
        EXPECT_FALSE(contains(shown.err, "CONSOLE")) << shown.err; // also for a nan
        const size_t begin = shown.out.find("<body>{") + 6;
        return json::parse(shown.out.substr(begin, shown.out.rfind('}') + 1 - begin), nullptr,
                           false);
    }

    bytes whole; // track 1 is audio, track 2 is video
};

TEST_F(InfoCommand, PrintsWhatAnIntactFileHolds)
{
    const std::string text = report_on(whole);
    for (const char *const part :
         {"AAC-LC, 48000 Hz, stereo\n           470 frames at 46.9", "No fault found.\n",
          "Constrained Baseline 1.3, 320x240\n           300 frames at 30.00 a second, 0:10.0, ",
          "10 key frames, at most 1.00 s apart\n"}) {
        EXPECT_TRUE(contains(text, part)) << text;
    }
    const std::string page = TDMBREC "info a.mp4 --html ";
    EXPECT_EQ(shell(page + "page.html && " + page + "| cmp - page.html").status, 0);
    const command_result sound = shell(TDMBREC "info programme.wav");
    EXPECT_TRUE(sound.status == 1 && contains(sound.out, "Fault    this is not an MP4 file\n"));
}

TEST_F(InfoCommand, IsAPageThatFitsATelephone)
{
    if (shell("command -v chromium").status != 0) {
        GTEST_SKIP() << "no Chromium";
    }
    const json shown = show_on_a_telephone();
    ASSERT_TRUE(shown.is_object());
    EXPECT_EQ(shown["width"], 400);
    EXPECT_EQ(shown["needed"], 400);
    EXPECT_EQ(shown["beside"], 0);
    EXPECT_EQ(shown["charts"], 3);
    EXPECT_GT(shown["bars"], 30);

    const json report = json::parse(shell(TDMBREC "info a.mp4 --json").out);
    std::vector<std::string> figures = {format_text(" (%d bytes), ", report["bytes"].get<int>())};
    for (const json &track : report["tracks"]) {
        const auto number = [&](const char *name) { return track[name].get<double>(); };
        figures.insert(
            figures.end(),
            {format_text("\n%s, ", track["coding"].get<std::string>().c_str()),
             format_text("\n%s\n", duration_text(number("duration_seconds")).c_str()),
             format_text("\n%.0f, %.2f a second\n", number("frames"), 1 / number("frame_seconds")),
             format_text("\n%.0f kbit/s, at most %.0f\n", number("bits_per_second") / 1000,
                         number("most_bits_per_second") / 1000)});
    }
    for (const std::string &figure : figures) {
        EXPECT_TRUE(contains(shown["text"], figure)) << figure << shown["text"];
    }
}

TEST_F(InfoCommand, NamesEveryFault)
{
    const size_t stts_of_pictures = after("stts", 1);
    const auto first_place = whole.begin() + static_cast<ptrdiff_t>(after("stco", 1) + 8);
    const struct {
        size_t at;
        bytes patch;
        const char *finding;
    } cases[] = {
        {after("moov"), {'x', 'x', 'x', 'x'}, "Fault    box "},
        {after("mdat") - 4, {'f', 'r', 'e', 'e'}, "track 1: 470 frames outside the media data"},
        {after("mvhd") + 12, {0, 0, 0, 0}, "the movie has a time scale of 0"},
        {after("mvhd") + 96, {0, 0, 0, 1}, "the next track's number is already used"},
        {after("tkhd", 1) + 12, {0, 0, 0, 1}, "track number 1 is used twice"},
        {after("mdhd", 1) + 16, {0, 0, 0, 9}, "track 2: its media header says 0.000 s"},
        {after("stco", 1) + 12, {0x7F, 0}, "1 frame outside the media data, the first is frame 2"},
        {after("stco", 1) + 12, {first_place, first_place + 4}, "share bytes with another: 1"},
        {after("stco", 1) + 8, {first_place + 8, first_place + 12}, "share bytes with another: 7"},
        {after("stco") + 4, {0, 0, 1, 0}, "track 1: the chunks do not hold all samples"},
        {after("stco") + 4, {0xFF, 0xFF, 0xFF, 0xFF}, "track 1: table stco is longer than its box"},
        {after("stsc") + 8, {0, 0, 0, 2}, "track 1: the chunks do not hold all samples"},
        {after("stsz") + 8, {0xFF, 0, 0, 0}, "track 1: table stsz is longer than its box"},
        {after("stsz") + 4, {0, 0, 0, 1, 0xFF, 0, 0, 0}, "Note     track 1: too many samples"},
        {after("stsz", 1) + 4, {0, 4, 0, 0}, "Note     track 2: its frames share so many bytes"},
        {after("stsz", 1) + 12, {0, 0, 0, 9}, "track 2: 1 frame with wrong NAL unit lengths"},
        {after("stss") + 8, {0, 0, 0, 2}, "track 2: does not begin with a key frame"},
        {after("stss") + 12, {0, 0, 0, 30}, "1 frame marked as key frame without an IDR picture"},
        {after("stss") + 12, {0, 0, 9, 9}, "track 2: stss names samples that"},
        {after("stss") + 12, {0, 0, 0, 1}, "track 2: stss is not in order"},
        {after("avcC") - 4, {'x'}, "track 2: has no parameter sets"},
        {after("esds") - 4, {'x'}, "track 1: has no decoder configuration"},
        {stts_of_pictures - 4, {'x'}, "track 2: table stts is missing"},
        {stts_of_pictures + 12, {0, 4, 0, 0}, "           gap of 2.8"},
        {stts_of_pictures + 8, {0, 1}, "track 2: stts has times for more samples"},
    };
    for (const auto &[at, patch, finding] : cases) {
        bytes image = whole;
        std::copy(patch.begin(), patch.end(), image.begin() + static_cast<ptrdiff_t>(at));
        const std::string text = report_on(image);
        EXPECT_TRUE(contains(text, finding)) << finding << "\n" << text;
    }
}

TEST_F(InfoCommand, ReportsWhatIsMissingWithoutCallingItAFault)
{
    if (ffmpeg("-version").status != 0) {
        GTEST_SKIP() << "no ffmpeg here";
    }
    ffmpeg("-i programme.wav -t 9 -af \"volume=0:enable='between(t,3,4)'\" hole.wav");
    shell(TDMBREC "encode hole.wav -o hole.aac");
    shell(TDMBREC "mux --video programme.h264 --audio hole.aac -o hole.mp4");
    ffmpeg("-i a.mp4 -c copy -movflags frag_keyframe+empty_moov fragments.mp4");
    const struct {
        const char *file, *verdict, *line;
    } cases[] = {
        {"a.mp4", "complete", "  State    complete\n"},
        {"hole.mp4", "damaged", "           silence of 0.9"},
        {"hole.mp4", "damaged", "  State    damaged: the sound ends 0.9"},
        {"fragments.mp4", nullptr, "  Parts    10 fragments\n"},
    };
    for (const auto &[file, verdict, line] : cases) {
        const command_result shown = shell(TDMBREC "info "s + file);
        EXPECT_EQ(shown.status, 0) << shown.out;
        EXPECT_TRUE(contains(shown.out, line)) << shown.out;
        const json report = json::parse(shell(TDMBREC "info --json "s + file).out);
        EXPECT_EQ(report.value("verdict", json()), verdict == nullptr ? json() : json(verdict));
    }
}

TEST_F(InfoCommand, SurvivesCutAndDamagedFiles)
{
    for (size_t size = 1; size < whole.size(); size += size < whole.size() - 9000 ? 9973u : 61u) {
        EXPECT_TRUE(contains(report_on({whole.data(), size}), "Fault")) << size;
    }
    const char *const given = std::getenv("SEED");
    std::mt19937 random(given != nullptr ? static_cast<unsigned>(std::atoi(given)) : 1u);
    const size_t movie = after("moov");
    for (int round = 0; round < 400; round++) {
        bytes image = whole;
        for (int flips = 1 + round % 8; flips > 0; flips--) {
            image[movie + random() % (image.size() - movie)] ^=
                static_cast<uint8_t>(1u << random() % 8);
        }
        report_on(image);
    }
    bytes nested; // moov in moov, down to the end of the file
    for (uint32_t left = 1 << 20; left > 8; left -= 8) {
        nested.insert(nested.end(),
                      {0, static_cast<uint8_t>(left >> 16), static_cast<uint8_t>(left >> 8),
                       static_cast<uint8_t>(left), 'm', 'o', 'o', 'v'});
    }
    nested.resize(1 << 20);
    EXPECT_TRUE(contains(report_on(nested), "boxes are nested too deeply"));
    EXPECT_TRUE(contains(report_on(bytes(1 << 20)), "Fault"));
}
