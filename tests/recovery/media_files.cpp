#include "tests/recovery/media_files.h"

#include "aacenc/band_tables.h"
#include "tests/aacenc/encoder_harness.h"
#include "tests/support/mux_recording.h"

#include <algorithm>
#include <cstring>
#include <random>

static constexpr int64_t kFirstFrame = 36; // its offset: after the head
static constexpr int kPictures = 90;
static constexpr int kPicturesPerKey = 15;

// clang-format off
static constexpr FileOptions kFiles[] = {
    //                     sample  slices sets   rate   ch  bit/s  pns tns ms lead
    {"programme",           true,  1, false, 48000, 2, 128000, 0, 0, 0,  2},
    {"programme, mono",     true,  1, false, 48000, 1,  64000, 0, 1, 0, -3},
    {"mid/side",            false, 1, true,  44100, 2,  96000, 0, 0, 1,  0},
    {"noise bands",         false, 4, false, 32000, 2,  64000, 1, 0, 0,  1},
    {"shaped noise, mono",  false, 4, true,  24000, 1,  24000, 1, 1, 0,  9},
    {"uneven slices",       false, 0, true,  22050, 2,  64000, 0, 1, 0, -1},
    {"uneven slices, mono", false, 0, false, 16000, 1,  32000, 0, 0, 0,  0},
    {"12 kHz",              true,  1, false, 12000, 2,  32000, 0, 1, 0,  4},
    {"11 kHz, mono",        false, 1, true,  11025, 1,  16000, 1, 0, 0,  0},
    {"8 kHz, mono",         false, 1, false,  8000, 1,  16000, 0, 1, 0,  1},
    {"no sound",            false, 2, true,      0, 0,      0, 0, 0, 0,  0},
};
// clang-format on

static void append(Bytes &to, const Bytes &from)
{
    to.insert(to.end(), from.begin(), from.end());
}

// A slice with first_mb_in_slice and then noise, without what no unit contains.
static Bytes make_slice(std::mt19937 &random, bool is_key, uint32_t first_mb, size_t size)
{
    Bytes unit = {static_cast<uint8_t>(is_key ? 0x65 : 0x41)};
    uint32_t bits = 0;
    while ((first_mb + 1) >> (bits + 1) != 0) {
        bits++;
    }
    // ue(v), then ones
    const uint32_t code = (first_mb + 1) << (31 - 2 * bits) | ((1U << (31 - 2 * bits)) - 1);
    for (int shift = 24; shift >= 0; shift -= 8) {
        unit.push_back(static_cast<uint8_t>(code >> shift));
    }
    while (unit.size() < size) {
        const uint8_t byte = static_cast<uint8_t>(random() % 4 == 0 ? random() % 4 : random());
        const size_t last = unit.size() - 1;
        if (byte <= 3 && unit[last] == 0 && unit[last - 1] == 0) {
            unit.push_back(3);
        }
        unit.push_back(byte);
    }
    unit.push_back(0x80);
    return unit;
}

static Bytes with_length(const Bytes &unit)
{
    Bytes result = mux_test::number(unit.size());
    append(result, unit);
    return result;
}

static Bytes make_picture(std::mt19937 &random, const FileOptions &options, bool is_key)
{
    Bytes picture;
    if (options.has_sets) {
        append(picture, with_length({9, 0xF0}));
        if (is_key) {
            append(picture, with_length(mux_test::kSps));
            append(picture, with_length(mux_test::kPps));
        }
    }
    const uint32_t slices = options.slices != 0 ? static_cast<uint32_t>(options.slices)
                                                : 1 + static_cast<uint32_t>(random() % 5);
    for (uint32_t i = 0; i < slices; i++) {
        const size_t most = is_key ? 4000 : 900;
        append(picture, with_length(make_slice(random, is_key, i * 60, 8 + random() % most)));
    }
    return picture;
}

static Bytes sample_picture(size_t index, bool *is_key)
{
    Bytes picture;
    for (const Bytes &unit : split_nal_units(sample_programme().access_units[index])) {
        const int type = unit[0] & 0x1F;
        if (type == 1 || type == 5) {
            append(picture, with_length(unit));
            *is_key = type == 5;
        }
    }
    return picture;
}

static int64_t count_sounds_at(const FileOptions &options, int picture)
{
    return options.channels == 0
               ? 0
               : int64_t{picture} * options.sample_rate / 1024 / kPicturesPerSecond;
}

static MediaFile make_file(const FileOptions &options)
{
    mux_test::reset_world();
    mux_test::recording recording;
    recording.open();
    EncoderOptions encoder_options = {.channels = 1};
    if (options.channels != 0) {
        encoder_options = {.sample_rate = options.sample_rate,
                           .channels = options.channels,
                           .bit_rate = options.bit_rate,
                           .pns = options.pns,
                           .tns = options.tns};
    }
    Encoder encoder(encoder_options);
    encoder.state()->midSide = options.mid_side;
    std::mt19937 random(static_cast<uint32_t>(options.sample_rate + options.slices));
    MediaFile file = {.name = options.name, .channels = options.channels};
    int64_t sounds = 0;
    const auto put = [&](int32_t type, const Bytes &bytes, uint32_t time_ms, bool is_key) {
        const int64_t offset =
            file.frames.empty() ? kFirstFrame : file.frames.back().offset + file.frames.back().size;
        file.frames.push_back({type, offset, static_cast<int32_t>(bytes.size()), is_key, time_ms});
        EXPECT_EQ(recording.put(type, bytes, time_ms, is_key), 0);
    };
    for (int i = 0; i < kPictures; i++) {
        bool is_key = i % kPicturesPerKey == 0;
        const Bytes picture = options.is_sample_video
                                  ? sample_picture(static_cast<size_t>(i), &is_key)
                                  : make_picture(random, options, is_key);
        put(MUX_TYPE_VIDEO, picture, static_cast<uint32_t>(i * 1000 / kPicturesPerSecond), is_key);
        const size_t samples = 1024 * static_cast<size_t>(options.channels);
        for (; sounds < count_sounds_at(options, i) + options.lead; sounds++) {
            const size_t at = static_cast<size_t>(sounds) * samples;
            put(MUX_TYPE_AUDIO, encoder.encode(&sample_programme().pcm[at]),
                static_cast<uint32_t>(sounds * 1024000 / options.sample_rate), false);
        }
    }
    EXPECT_EQ(recording.close(), 0);
    file.bytes = mux_test::world.files["out.mp4"].bytes;
    const auto rate = std::find(SampleRates, SampleRates + 9, options.sample_rate);
    if (rate != SampleRates + 9) {
        const auto same =
            std::find(sr_info_index, sr_info_index + 9, sr_info_index[rate - SampleRates]);
        file.sampling_index = static_cast<int32_t>(same - sr_info_index) + 3;
    }
    return file;
}

const std::vector<MediaFile> &media_files()
{
    static const std::vector<MediaFile> files = [] {
        std::vector<MediaFile> made;
        for (const FileOptions &options : kFiles) {
            made.push_back(make_file(options));
        }
        mux_test::reset_world();
        return made;
    }();
    return files;
}

static int64_t read_bytes(void *context, int64_t offset, void *buffer, int64_t count)
{
    const Bytes &bytes = *static_cast<const Bytes *>(context);
    const int64_t rest = std::max<int64_t>(static_cast<int64_t>(bytes.size()) - offset, 0);
    const int64_t read = std::min(count, rest);
    std::memcpy(buffer, bytes.data() + offset, static_cast<size_t>(read));
    return read;
}

static int64_t count_bytes(void *context)
{
    return static_cast<int64_t>(static_cast<const Bytes *>(context)->size());
}

recovery_source_t source_of(const Bytes &bytes)
{
    return {const_cast<Bytes *>(&bytes), read_bytes, count_bytes};
}
