#include "tests/recovery/interrupted_recording.h"

#include "journal/journal.h"
#include "tests/support/mux_recording.h"

#include <algorithm>

static constexpr uint64_t kSession = 0x0123456789ABCDEF;

static journal_settings_t journal_settings_of(const muxer_settings &muxer)
{
    journal_settings_t settings = {.session = kSession,
                                   .stream_flags = muxer.stream_flags,
                                   .options = muxer.options,
                                   .input = muxer.input};
    const Bytes &video = muxer.video_configuration;
    std::copy(video.begin(), video.end(), settings.video_configuration);
    settings.video_configuration_bytes = static_cast<uint32_t>(video.size());
    const Bytes &audio = muxer.audio_configuration;
    std::copy(audio.begin(), audio.end(), settings.audio_configuration);
    settings.audio_configuration_bytes = static_cast<uint32_t>(audio.size());
    return settings;
}

static void add_to_journal(interrupted_recording *made, const uint8_t *bytes, size_t count,
                           size_t frames)
{
    made->journal.insert(made->journal.end(), bytes, bytes + count);
    made->journal_ends.push_back(made->journal.size());
    made->journaled.push_back(frames);
}

static void make_journal(interrupted_recording *made, size_t frames_of_group)
{
    uint8_t head[kJournalHeadBytes];
    const journal_settings_t settings = journal_settings_of(made->settings);
    add_to_journal(made, head, journal_write_head(&settings, head), 0);
    static journal_group_t group;
    for (size_t i = 0; i < made->frames.size();) {
        journal_begin_group(&group, kSession, static_cast<uint64_t>(made->frames[i].offset));
        const size_t end = std::min(i + frames_of_group, made->frames.size());
        for (; i < end; i++) {
            const muxed_frame &frame = made->frames[i];
            const journal_frame_t record = {frame.type, static_cast<uint32_t>(frame.bytes.size()),
                                            frame.time_ms, frame.flags};
            EXPECT_TRUE(journal_add_frame(&group, &record, frame.bytes.data()));
        }
        const uint32_t group_bytes = journal_end_group(&group);
        add_to_journal(made, group.bytes, group_bytes, i);
    }
}

Bytes make_group(uint64_t media_begin, const std::vector<uint32_t> &frame_bytes)
{
    using mux_test::number, mux_test::operator+;
    Bytes records;
    for (const uint32_t bytes : frame_bytes) {
        uint64_t size = uint64_t{bytes} << 2;
        for (; size > 0x7F; size >>= 7) {
            records.push_back(static_cast<uint8_t>(0x80 | (size & 0x7F)));
        }
        records.push_back(static_cast<uint8_t>(size));
        records.push_back(2); // a time
    }
    const Bytes group = mux_test::bytes("'JGRP'") +
                        number(kJournalGroupHeaderBytes + records.size() + kJournalSumBytes) +
                        number(frame_bytes.size()) + number(media_begin, 8) + number(0) + records;
    journal_sum_t sum = journal_sum_begin(kSession);
    journal_sum_add(&sum, group.data(), group.size());
    return group + number(journal_sum_end(&sum));
}

interrupted_recording make_interrupted(const recording_options &how, size_t frames_of_group)
{
    interrupted_recording made = {make_known_recording(how), {}, {}, {}, {}, {}};
    const muxed_frame &last = made.frames.back();
    const auto begin = made.finished.begin();
    made.media.assign(begin, begin + static_cast<ptrdiff_t>(last.offset) +
                                 static_cast<ptrdiff_t>(last.bytes.size()));
    std::fill_n(made.media.begin() + 28, 4, uint8_t{0}); // the size of the media data
    for (const muxed_frame &frame : made.frames) {
        made.ends.push_back(static_cast<size_t>(frame.offset) + frame.bytes.size());
    }
    make_journal(&made, frames_of_group);
    return made;
}
