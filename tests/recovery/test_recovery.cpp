// Recordings that are interrupted anywhere, with the journals that a crash or a hostile hand
// leaves.
#include "tests/recovery/interrupted_recording.h"

#include <algorithm>

using namespace recovery_test;

namespace {

const options kSetups[] = {
    {.name = "sets in the configuration"},
    {.name = "sets in band", .has_sets_in_band = true},
    {.name = "no sound", .has_sound = false, .pictures = 8},
    {.name = "mono", .channels = 1, .pictures = 8},
    {.name = "one group", .frames_of_group = 100, .pictures = 8},
};

size_t whole_frames(const recording &of, size_t media_bytes)
{
    return static_cast<size_t>(std::count_if(of.ends.begin(), of.ends.end(),
                                             [&](size_t end) { return end <= media_bytes; }));
}

Bytes cut(const Bytes &bytes, size_t count)
{
    return {bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(count)};
}

TEST(Recovery, EqualsTheNormalStopWhereverTheMediaIsCut)
{
    for (const options &how : kSetups) {
        const recording r = make_recording(how);
        std::vector<Bytes> expected;
        for (size_t frames = 0; frames <= r.frames.size(); frames++) {
            expected.push_back(normal_stop(r, frames));
        }
        const size_t first_frames = r.ends[2];
        const size_t last_frames = r.ends[r.ends.size() - 4];
        for (size_t bytes = 0; bytes <= r.media.size(); bytes++) {
            if (bytes > first_frames && bytes < last_frames && bytes % 41 != 0) {
                continue; // the middle is like the rest
            }
            const result got = recover(cut(r.media, bytes), &r.journal);
            const size_t frames = whole_frames(r, bytes);
            ASSERT_EQ(got.code, frames == 0 ? RECOVERY_ERR_NOTHING : RECOVERY_DONE)
                << how.name << ", " << bytes << " bytes: " << got.report.message;
            ASSERT_EQ(got.report.pictures + got.report.sounds, frames);
            ASSERT_TRUE(frames == 0 || got.file == expected[frames])
                << how.name << ", " << bytes << " bytes";
        }
    }
}

} // namespace
