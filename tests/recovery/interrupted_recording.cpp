#include "tests/recovery/interrupted_recording.h"

#include "aacenc/aac_enc.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <numeric>

namespace recovery_test {

static constexpr size_t kHeadBytes = 36;
static constexpr uint64_t kSession = 0x0123456789ABCDEF;
static constexpr uint8_t kSilence[] = {0x20, 0, 0, 0, 0, 0, 0x0E};

static std::vector<Bytes> encode_sounds(const options &how, size_t count)
{
    const AacEncCallbacks memory = {std::malloc, std::free,    std::memcpy,
                                    std::memset, std::realloc, std::memmove};
    Bytes out(AACENC_OUTPUT_BYTES);
    AacEncAudioInfo audio = {
        .sampleRate = how.sample_rate, .deinterleave = 1, .channels = how.channels};
    AacEncStreamInfo stream = {.output = out.data(), .channels = how.channels, .bitRate = 64000};
    AacEncInitParams params = {.audioInfo = &audio, .streamInfo = &stream, .callbacks = &memory};
    void *handle = nullptr;
    EXPECT_EQ(QVR_AAC_ENC(AACENC_OP_INIT, &handle, &params, nullptr), AACENC_OK);
    std::vector<Bytes> sounds;
    for (size_t i = 0; i < count; i++) {
        audio.pcm = sample_programme().pcm.data() + i * 2 * kPcmBufferSamples;
        EXPECT_EQ(QVR_AAC_ENC(AACENC_OP_ENCODE, &handle, &audio, &stream), AACENC_OK);
        sounds.emplace_back(out.begin(), out.begin() + stream.outputBytes);
    }
    EXPECT_EQ(QVR_AAC_ENC(AACENC_OP_CLOSE, &handle, nullptr, nullptr), AACENC_OK);
    return sounds;
}

// The slices of a picture, whose first macroblocks have other numbers, up to four.
static std::vector<Bytes> make_slices(const options &how, size_t index)
{
    static constexpr uint8_t kFirstMacroblocks[] = {0x9A, 0x5A, 0x7A, 0x2A}; // 0, 1, 2, 4
    std::vector<Bytes> slices;
    for (size_t i = 0; i < how.slices; i++) {
        Bytes slice(40 + index * 7 % 50);
        for (size_t at = 0; at < slice.size(); at++) {
            slice[at] = static_cast<uint8_t>(1 + (at * 37 + index) % 255);
        }
        slice[0] = index % 5 == 0 ? 0x65 : 0x41;
        slice[1] = kFirstMacroblocks[i];
        slices.push_back(slice);
    }
    return slices;
}

// A picture as the recorder writes it: each unit after its length.
static frame make_picture(const options &how, size_t index)
{
    frame picture = {.type = MUX_TYPE_VIDEO,
                     .bytes = {},
                     .time_ms = static_cast<uint32_t>(index * 1000 / kPicturesPerSecond +
                                                      index * 7 % (how.jitter_ms + 1)),
                     .is_key = false};
    for (const Bytes &unit : how.slices > 1
                                 ? make_slices(how, index)
                                 : split_nal_units(sample_programme().access_units[index])) {
        const int type = unit[0] & 0x1F;
        picture.is_key = picture.is_key || type == 5;
        if (how.has_sets_in_band || (type != 7 && type != 8)) {
            picture.bytes = mux_test::operator+(picture.bytes, mux_test::number(unit.size()));
            picture.bytes = mux_test::operator+(picture.bytes, unit);
        }
    }
    return picture;
}

static std::vector<frame> make_frames(const options &how)
{
    const size_t sound_count = how.has_sound ? how.pictures * 3 / 2 : 0;
    const std::vector<Bytes> sounds = encode_sounds(how, sound_count);
    std::vector<frame> frames;
    size_t sound = 0;
    for (size_t i = 0; i < how.pictures; i++) {
        frames.push_back(make_picture(how, i));
        const uint32_t picture_ms = frames.back().time_ms;
        for (; sound < sound_count; sound++) {
            const uint64_t samples = uint64_t{sound} * kPcmBufferSamples;
            const uint32_t time_ms =
                static_cast<uint32_t>(samples * 1000 / static_cast<uint32_t>(how.sample_rate));
            if (time_ms > picture_ms) {
                break;
            }
            frames.push_back({MUX_TYPE_AUDIO, sounds[sound], time_ms, true});
        }
    }
    return frames;
}

Bytes programme_sets()
{
    std::vector<Bytes> sets;
    for (const Bytes &unit : split_nal_units(sample_programme().access_units[0])) {
        if ((unit[0] & 0x1F) == 7 || (unit[0] & 0x1F) == 8) {
            sets.push_back(unit);
        }
    }
    return join_nal_units(sets);
}

static mux_test::recording open_recording(const options &how)
{
    mux_test::recording r;
    r.input.m_uiVideoTrackID = 0;
    r.input.m_uiAudioTrackID = 0;
    r.input.m_iWeekDay = 1;
    r.input.m_iVideoFrameRate = 30000;
    r.input.m_iAudioSampleRate = how.sample_rate;
    r.input.m_iAudioChannels = how.channels;
    r.init.m_uiOptions = MUX_OPTION_32BIT_OFFSET;
    r.video_private = how.has_sets_in_band ? Bytes{} : programme_sets();
    r.audio_private = how.channels == 2 ? mux_test::bytes("1190") : mux_test::bytes("1188");
    return r;
}

static journal_settings_t settings_of(const options &how)
{
    const mux_test::recording r = open_recording(how);
    journal_settings_t settings = {.session = kSession,
                                   .stream_flags = r.init.m_uiStreamFlags,
                                   .options = r.init.m_uiOptions,
                                   .input = r.input};
    std::copy(r.video_private.begin(), r.video_private.end(), settings.video_configuration);
    settings.video_configuration_bytes = static_cast<uint32_t>(r.video_private.size());
    std::copy(r.audio_private.begin(), r.audio_private.end(), settings.audio_configuration);
    settings.audio_configuration_bytes = static_cast<uint32_t>(r.audio_private.size());
    return settings;
}

static void make_journal(recording *of)
{
    uint8_t head[kJournalHeadBytes];
    const journal_settings_t settings = settings_of(of->how);
    const uint32_t head_bytes = journal_write_head(&settings, head);
    of->journal.assign(head, head + head_bytes);
    of->journal_ends.push_back(of->journal.size());
    of->journaled.push_back(0);
    static journal_group_t group;
    for (size_t i = 0; i < of->frames.size();) {
        journal_begin_group(&group, kSession, i == 0 ? kHeadBytes : of->ends[i - 1]);
        const size_t end = std::min(i + of->how.frames_of_group, of->frames.size());
        for (; i < end; i++) {
            const frame &f = of->frames[i];
            const journal_frame_t record = {f.type, static_cast<uint32_t>(f.bytes.size()),
                                            f.time_ms, f.is_key ? uint32_t{MUX_FRAME_KEY} : 0u};
            EXPECT_TRUE(journal_add_frame(&group, &record, f.bytes.data()));
        }
        const uint32_t group_bytes = journal_end_group(&group);
        of->journal.insert(of->journal.end(), group.bytes, group.bytes + group_bytes);
        of->journal_ends.push_back(of->journal.size());
        of->journaled.push_back(i);
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

Bytes normal_stop(const recording &of, const std::vector<size_t> &numbers)
{
    mux_test::reset_world();
    mux_test::recording r = open_recording(of.how);
    EXPECT_EQ(r.open(), 0);
    bool has_sound = false;
    for (const size_t number : numbers) {
        const frame &f = of.frames[number];
        has_sound = has_sound || f.type == MUX_TYPE_AUDIO;
        EXPECT_EQ(r.put(f.type, f.bytes, f.time_ms, f.is_key), 0);
    }
    if (!has_sound) {
        EXPECT_EQ(r.put(MUX_TYPE_AUDIO, {kSilence, kSilence + sizeof(kSilence)}, 0, true), 0);
    }
    EXPECT_EQ(r.close(), 0);
    return mux_test::world.files["out.mp4"].bytes;
}

Bytes normal_stop(const recording &of, size_t frames)
{
    std::vector<size_t> numbers(frames);
    std::iota(numbers.begin(), numbers.end(), size_t{0});
    return normal_stop(of, numbers);
}

recording make_recording(const options &how)
{
    recording made = {.how = how, .frames = make_frames(how)};
    const Bytes finished = normal_stop(made, made.frames.size());
    made.media.assign(finished.begin(), finished.begin() + kHeadBytes);
    std::fill_n(made.media.begin() + 28, 4, uint8_t{0}); // the size of the media data
    for (const frame &f : made.frames) {
        made.media.insert(made.media.end(), f.bytes.begin(), f.bytes.end());
        made.ends.push_back(made.media.size());
    }
    make_journal(&made);
    return made;
}

static bool may_call(memory_file *file)
{
    file->calls_left -= file->calls_left > 0 ? 1 : 0;
    return file->calls_left > 0;
}

static int64_t read_at(void *context, int64_t offset, void *buffer, int64_t count)
{
    memory_file *const file = static_cast<memory_file *>(context);
    Bytes &bytes = file->bytes;
    file->reads_to_cut--;
    bytes.resize(file->reads_to_cut == 0 ? bytes.size() - 10 : bytes.size());
    file->reads_left -= file->reads_left > 0 ? 1 : 0;
    if (file->reads_left == 0) {
        return -1;
    }
    const int64_t left = std::max<int64_t>(static_cast<int64_t>(bytes.size()) - offset, 0);
    const int64_t got = std::min(count, left);
    std::copy_n(bytes.data() + offset, got, static_cast<uint8_t *>(buffer));
    return got;
}

static int64_t size_of(void *context)
{
    return static_cast<int64_t>(static_cast<memory_file *>(context)->bytes.size());
}

// A write that fails has written its first half.
static int32_t write_at(void *context, int64_t offset, const void *from, int64_t count)
{
    memory_file *const file = static_cast<memory_file *>(context);
    const bool was_dead = file->calls_left == 0;
    const bool is_whole = may_call(file);
    const int64_t written = is_whole ? count : was_dead ? 0 : count / 2;
    const size_t end = static_cast<size_t>(offset + written);
    file->bytes.resize(std::max(file->bytes.size(), end));
    std::copy_n(static_cast<const uint8_t *>(from), written, file->bytes.data() + offset);
    return is_whole ? 0 : -1;
}

static int32_t set_size(void *context, int64_t bytes)
{
    memory_file *const file = static_cast<memory_file *>(context);
    if (!may_call(file)) {
        return -1;
    }
    file->bytes.resize(static_cast<size_t>(bytes));
    return 0;
}

static int32_t sync(void *context)
{
    return may_call(static_cast<memory_file *>(context)) ? 0 : -1;
}

recovery_source_t source_of(memory_file *file)
{
    return {.context = file, .read_at = read_at, .size = size_of};
}

recovery_target_t target_of(memory_file *file)
{
    return {.context = file, .write_at = write_at, .set_size = set_size, .sync = sync};
}

namespace {

// The input of a recovery, with its files.
struct input_files {
    memory_file journal, tables[RECOVERY_TABLE_COUNT];
    recovery_source_t journal_source = source_of(&journal);
    recovery_source_t table_sources[RECOVERY_TABLE_COUNT] = {};
    recovery_input_t input = {};

    input_files(memory_file *media, const Bytes *journal_bytes, const Bytes &configuration,
                const Bytes *table_bytes = nullptr)
    {
        for (size_t i = 0; table_bytes != nullptr && i < RECOVERY_TABLE_COUNT; i++) {
            tables[i].bytes = table_bytes[i];
            table_sources[i] = source_of(&tables[i]);
            input.tables[i] = &table_sources[i];
        }
        journal.bytes = journal_bytes != nullptr ? *journal_bytes : Bytes{};
        input.media = source_of(media);
        input.journal = journal_bytes != nullptr ? &journal_source : nullptr;
        input.configuration = configuration.data();
        input.configuration_bytes = static_cast<int32_t>(configuration.size());
        mux_test::reset_world();
    }
};

} // namespace

static void check_result(const result &got)
{
    EXPECT_EQ(got.code == RECOVERY_DONE, got.report.message[0] == '\0') << got.report.message;
    EXPECT_EQ(mux_test::leftovers(), "");
}

result recover(const Bytes &media, const Bytes *journal, const Bytes &configuration,
               const Bytes *tables)
{
    memory_file media_file = {media};
    const input_files files(&media_file, journal, configuration, tables);
    mux_test::recording r;
    r.init.m_pOutput = r.output.data();
    result got = {};
    recovery_report_t scanned = {};
    const int32_t scan_code = recovery_scan(&files.input, &scanned);
    got.code = recovery_write(&files.input, &r.init, nullptr, &got.report);
    if (got.code != RECOVERY_ERR_CONFIGURATION) {
        EXPECT_EQ(scan_code, got.code);
        EXPECT_EQ(std::memcmp(&scanned, &got.report, sizeof(scanned)), 0);
    }
    got.file = got.code == RECOVERY_DONE ? mux_test::world.files["out.mp4"].bytes : Bytes{};
    check_result(got);
    return got;
}

result finish_in_place(memory_file *media, const Bytes *journal, const Bytes &configuration,
                       mux_test::cache_layout layout, size_t journal_reads)
{
    input_files files(media, journal, configuration);
    files.journal.reads_left = journal_reads;
    const recovery_target_t target = target_of(media);
    mux_test::recording r;
    r.set_cache(layout);
    result got = {};
    got.code = recovery_in_place(&files.input, &target, &r.init, nullptr, &got.report);
    got.file = media->bytes;
    check_result(got);
    return got;
}

} // namespace recovery_test
