#include "tests/recovery/known_recording.h"

#include "tests/aacenc/encoder_harness.h"
#include "tests/support/mux_recording.h"

#include <random>

static constexpr int kPicturesPerKey = 15;

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

static Bytes make_picture(std::mt19937 &random, const recording_options &how, bool is_key)
{
    Bytes picture;
    if (how.has_sets) {
        append(picture, with_length({9, 0xF0}));
        if (is_key) {
            append(picture, with_length(mux_test::kSps));
            append(picture, with_length(mux_test::kPps));
        }
    }
    const uint32_t slices = how.slices != 0 ? static_cast<uint32_t>(how.slices)
                                            : 1 + static_cast<uint32_t>(random() % 5);
    for (uint32_t i = 0; i < slices; i++) {
        const size_t most = static_cast<size_t>(is_key ? how.slice_bytes : how.slice_bytes / 4);
        append(picture, with_length(make_slice(random, is_key, i * 60, 8 + random() % most)));
    }
    return picture;
}

static Bytes sample_picture(const recording_options &how, size_t index, bool *is_key)
{
    Bytes picture;
    for (const Bytes &unit : split_nal_units(sample_programme().access_units[index])) {
        const int type = unit[0] & 0x1F;
        *is_key = type == 5;
        if (how.has_sets || (type != 7 && type != 8)) {
            append(picture, with_length(unit));
        }
    }
    return picture;
}

static int count_sounds_at(const recording_options &how, int picture)
{
    return how.channels == 0 ? 0 : picture * how.sample_rate / 1024 / kPicturesPerSecond + how.lead;
}

static void add_frame(known_recording *made, int32_t type, bool is_key, int time_ms,
                      const Bytes &bytes)
{
    int64_t offset = kHeadBytes;
    if (!made->frames.empty()) {
        const muxed_frame &last = made->frames.back();
        offset = last.offset + static_cast<int64_t>(last.bytes.size());
    }
    made->frames.push_back({.type = type,
                            .flags = is_key ? uint32_t{MUX_FRAME_KEY} : 0u,
                            .time_ms = static_cast<uint32_t>(time_ms),
                            .offset = offset,
                            .bytes = bytes});
}

static void add_frames(known_recording *made)
{
    const recording_options &how = made->how;
    EncoderOptions encoder_options = {.channels = 1};
    if (how.channels != 0) {
        encoder_options = {.sample_rate = how.sample_rate,
                           .channels = how.channels,
                           .bit_rate = how.bit_rate,
                           .pns = how.pns,
                           .tns = how.tns};
    }
    Encoder encoder(encoder_options);
    encoder.state()->midSide = how.mid_side;
    std::mt19937 random(static_cast<uint32_t>(how.sample_rate + how.slices));
    int sounds = 0;
    for (int i = 0; i < how.pictures; i++) {
        bool is_key = i % kPicturesPerKey == 0;
        const Bytes picture = how.is_made ? make_picture(random, how, is_key)
                                          : sample_picture(how, static_cast<size_t>(i), &is_key);
        add_frame(made, MUX_TYPE_VIDEO, is_key,
                  i * 1000 / kPicturesPerSecond + i * 7 % (how.jitter_ms + 1), picture);
        for (; sounds < count_sounds_at(how, i); sounds++) {
            const size_t at = static_cast<size_t>(sounds * 1024 * how.channels);
            add_frame(made, MUX_TYPE_AUDIO, true, sounds * 1024000 / how.sample_rate,
                      encoder.encode(&sample_programme().pcm[at]));
        }
    }
}

Bytes programme_sets()
{
    std::vector<Bytes> units = split_nal_units(sample_programme().access_units[0]);
    std::erase_if(units, [](const Bytes &unit) {
        const int type = unit[0] & 0x1F;
        return type != 7 && type != 8;
    });
    return join_nal_units(units);
}

known_recording make_known_recording(const recording_options &how)
{
    known_recording made = {.how = how,
                            .settings =
                                recorder_settings(how.has_sets ? Bytes{} : programme_sets()),
                            .frames = {},
                            .finished = {}};
    if (how.channels != 0) {
        made.settings.input.m_iAudioSampleRate = how.sample_rate;
        made.settings.input.m_iAudioChannels = how.channels;
    }
    if (how.channels == 1) {
        made.settings.audio_configuration = {0x11, 0x88};
    }
    add_frames(&made);
    made.finished = normal_stop(made.settings, made.frames);
    return made;
}
