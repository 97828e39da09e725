#include "mp4mux/mp4_mux.h"
#include "recovery/media_walk.h"
#include "tests/recovery/media_files.h"

#include <algorithm>
#include <cstdio>
#include <gtest/gtest.h>
#include <random>

static constexpr int64_t kFirstFrame = 36; // its offset: after the head

struct Walk {
    std::vector<walked_frame> frames;
    int64_t end_bytes; // after the last frame
    bool has_sound;
    int32_t sampling_index, channels;
};

static Walk walk_over(const Bytes &bytes)
{
    Walk result = {};
    const recovery_source_t source = source_of(bytes);
    media_window window;
    EXPECT_TRUE(media_window_open(&window, &source));
    media_walk walk = {
        .window = &window, .position = kFirstFrame, .end = static_cast<int64_t>(bytes.size())};
    result.has_sound = media_walk_find_sound(&walk);
    EXPECT_EQ(walk.position, kFirstFrame);
    result.sampling_index = walk.sampling_index;
    result.channels = walk.channels;
    walked_frame frame;
    while (media_walk_next(&walk, &frame) == kWalkFrame) {
        result.frames.push_back(frame);
    }
    EXPECT_FALSE(window.has_failed);
    result.end_bytes = frame.skipped_bytes;
    media_window_close(&window);
    return result;
}

// returns: whether a frame that was found is one of those before `end` and outside the hole
static bool is_true(const MediaFile &file, const walked_frame &found)
{
    const auto frame =
        std::lower_bound(file.frames.begin(), file.frames.end(), found.offset,
                         [](const TrueFrame &a, int64_t offset) { return a.offset < offset; });
    return frame != file.frames.end() && frame->offset == found.offset &&
           frame->size == found.size && frame->type == found.type &&
           frame->is_sync == found.is_sync;
}

static std::vector<TrueFrame> whole_frames(const MediaFile &file, int64_t end)
{
    std::vector<TrueFrame> whole = file.frames;
    std::erase_if(whole, [&](const TrueFrame &frame) { return frame.offset + frame.size > end; });
    return whole;
}

TEST(Walk, FindsEveryWholeFrameOfACutFileAndNoOther)
{
    for (const MediaFile &file : media_files()) {
        SCOPED_TRACE(file.name);
        std::mt19937 random(20);
        for (int i = 0; i < 20; i++) {
            const size_t cut = i == 0 ? file.bytes.size()
                                      : kFirstFrame + random() % (file.bytes.size() - kFirstFrame);
            SCOPED_TRACE(cut);
            const Bytes bytes(file.bytes.begin(), file.bytes.begin() + static_cast<ptrdiff_t>(cut));
            const std::vector<TrueFrame> whole = whole_frames(file, static_cast<int64_t>(cut));
            const Walk walk = walk_over(bytes);
            EXPECT_EQ(walk.frames.size(), whole.size());
            for (const walked_frame &frame : walk.frames) {
                EXPECT_TRUE(is_true(file, frame)) << frame.offset;
                EXPECT_EQ(frame.skipped_bytes, 0);
            }
            if (i == 0) {
                EXPECT_EQ(walk.channels, file.channels);
                EXPECT_EQ(walk.sampling_index, file.sampling_index);
            }
        }
    }
}

TEST(Walk, InventsNothingWhereBlocksAreZero)
{
    constexpr size_t kBlock = 4096;
    size_t holes = 0, lost = 0;
    for (const MediaFile &file : media_files()) {
        SCOPED_TRACE(file.name);
        std::mt19937 random(4);
        const int64_t media_end = file.frames.back().offset + file.frames.back().size;
        for (int i = 0; i < 40; i++) {
            Bytes bytes = file.bytes;
            const size_t block = random() % (static_cast<size_t>(media_end) / kBlock);
            const size_t begin = std::max<size_t>(block * kBlock, kFirstFrame);
            const size_t end = std::min((block + 1) * kBlock, static_cast<size_t>(media_end));
            std::fill(bytes.begin() + static_cast<ptrdiff_t>(begin),
                      bytes.begin() + static_cast<ptrdiff_t>(end), 0);
            size_t whole = 0;
            for (const TrueFrame &frame : file.frames) {
                const auto at = [&](const Bytes &of) { return of.begin() + frame.offset; };
                whole += std::equal(at(bytes), at(bytes) + frame.size, at(file.bytes)) ? 1U : 0U;
            }
            const Walk walk = walk_over(bytes);
            size_t found = 0;
            for (const walked_frame &frame : walk.frames) {
                EXPECT_TRUE(is_true(file, frame)) << "block " << block << " at " << frame.offset
                                                  << " " << frame.size << " " << frame.type;
                found += is_true(file, frame) ? 1U : 0U;
            }
            holes++;
            lost += whole - std::min(found, whole);
            EXPECT_LE(found, whole);
        }
    }
    std::printf("%zu intact frames lost near %zu zeroed blocks\n", lost, holes);
    EXPECT_LT(lost, holes / 4);
}
