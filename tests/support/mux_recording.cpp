#include "tests/support/mux_recording.h"

#include "tests/support/box_reader.h"
#include "tests/support/mux_callbacks.h"

#include <algorithm>

namespace mux_test {

const std::vector<uint8_t> kSps = {0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x05, 0x07, 0xE8, 0x40, 0x10};
const std::vector<uint8_t> kPps = {0x68, 0xCE, 0x3C, 0x80};
const std::vector<uint8_t> kAudioConfig = {0x11, 0x90};

std::vector<uint8_t> operator+(std::vector<uint8_t> a, const std::vector<uint8_t> &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::vector<uint8_t> annex_b_parameter_sets()
{
    return std::vector<uint8_t>{0, 0, 0, 1} + kSps + std::vector<uint8_t>{0, 0, 0, 1} + kPps;
}

// clang-format off
recording::recording(bool with_64bit, uint32_t flags)
    : init(make_callbacks(with_64bit)),
      input{.m_iYear = 2009, .m_iMonth = 9, .m_iDay = 5, .m_iHour = 17, .m_iMinute = 5,
            .m_iSecond = 18, .m_uiVideoTrackID = 77, .m_iVideoWidth = 320, .m_iVideoHeight = 240,
            .m_uiVideoFourCC = 0x31637661, .m_uiAudioTrackID = 78, .m_iAudioSampleRate = 48000,
            .m_iAudioBitsPerSample = 16, .m_iAudioChannels = 2, .m_iAudioCodec = 0xAAC0},
      video_private(annex_b_parameter_sets()), audio_private(kAudioConfig)
// clang-format on
{
    init.m_uiStreamFlags = flags;
    init.m_pszTempDir = "/tmp/scratch";
}

void recording::set_cache(cache_layout layout)
{
    static constexpr int32_t kSizes[][3] = {
        {0, 0, 0}, {0x100000, 0xC0000, 0x80000}, {40000, 0, 0}, {8, 17, 9}};
    const auto &[output_bytes, video_bytes, audio_bytes] = kSizes[static_cast<size_t>(layout)];
    cache.assign(static_cast<size_t>(output_bytes + video_bytes + audio_bytes), 0xEE);
    init.m_pCacheMem = cache.empty() ? nullptr : cache.data();
    init.m_iCacheSize = output_bytes;
    init.m_iVideoCacheSize = video_bytes;
    init.m_iAudioCacheSize = audio_bytes;
}

void recording::lend_close_memory(int32_t bytes)
{
    close_bytes.assign(static_cast<size_t>(bytes), 0xDD);
    close_mem = {close_bytes.data(), bytes};
}

int32_t recording::open()
{
    if (init.m_pOutput == nullptr) {
        init.m_pOutput = output.data();
    }
    input.m_pbyVideoPrivate = video_private.empty() ? nullptr : video_private.data();
    input.m_iVideoPrivateSize = static_cast<int32_t>(video_private.size());
    input.m_pbyAudioPrivate = audio_private.empty() ? nullptr : audio_private.data();
    input.m_iAudioPrivateSize = static_cast<int32_t>(audio_private.size());
    return QVR_MP4_MUX(MUX_OPEN, &handle, &init, &input);
}

int32_t recording::put(int32_t type, const std::vector<uint8_t> &bytes, uint32_t time_ms, bool key)
{
    const uint32_t flags = key ? MUX_FRAME_KEY : 0;
    mp4_mux_putstream_t frame = {
        bytes.data(), static_cast<int32_t>(bytes.size()), type, time_ms, time_ms, flags};
    const int32_t result = QVR_MP4_MUX(MUX_PUTFRAME, &handle, &frame, &estimate);
    frames.push_back({type, bytes, time_ms, key, result});
    return result;
}

static std::vector<uint8_t> make_frame(uint32_t time_ms, size_t size)
{
    std::vector<uint8_t> frame(size);
    for (size_t i = 0; i < size; i++) {
        frame[i] = static_cast<uint8_t>(time_ms * 31 + size * 7 + i * i);
    }
    return frame;
}

int32_t recording::video(uint32_t time_ms, size_t size, bool key)
{
    return put(MUX_TYPE_VIDEO, make_frame(time_ms, size), time_ms, key);
}

int32_t recording::audio(uint32_t time_ms, size_t size)
{
    return put(MUX_TYPE_AUDIO, make_frame(time_ms, size), time_ms);
}

int32_t recording::close()
{
    return QVR_MP4_MUX(MUX_CLOSE, &handle, close_mem.m_pMem != nullptr ? &close_mem : nullptr,
                       nullptr);
}

mp4_mux_error_t recording::error()
{
    mp4_mux_error_t last = {};
    QVR_MP4_MUX(MUX_GET_LAST_ERROR, &handle, nullptr, &last);
    return last;
}

std::string recording::message()
{
    const mp4_mux_error_t last = error();
    return last.m_pszMessage != nullptr ? last.m_pszMessage : "(no handle)";
}

std::vector<uint8_t> recording::file() const
{
    return read_file(output);
}

static bool holds(const std::vector<uint8_t> &file, const box_reader::sample &sample,
                  const put_frame &frame)
{
    return sample.size == frame.bytes.size() && sample.offset + sample.size <= file.size() &&
           std::equal(frame.bytes.begin(), frame.bytes.end(),
                      file.begin() + static_cast<ptrdiff_t>(sample.offset));
}

static std::string check_track(const recording &r, const std::vector<uint8_t> &file,
                               const box_reader::track &track)
{
    const int32_t type = track.handler == "vide" ? MUX_TYPE_VIDEO : MUX_TYPE_AUDIO;
    size_t at = 0;
    bool timed = type == MUX_TYPE_VIDEO;
    for (const put_frame &frame : r.frames) {
        const std::string name = track.handler + " at " + std::to_string(frame.time_ms);
        if (frame.type != type) {
            continue;
        }
        if (at == track.samples.size() || !holds(file, track.samples[at], frame)) {
            if (frame.result >= 0) {
                return name + " is lost";
            }
            continue;
        }
        const box_reader::sample &sample = track.samples[at];
        timed = timed && (at > 0 || frame.time_ms == 0);
        if (timed && sample.time != frame.time_ms * 90) {
            return name + " is out of time";
        }
        if (type == MUX_TYPE_VIDEO && sample.sync != frame.key) {
            return name + " has the wrong sync flag";
        }
        at++;
    }
    return at == track.samples.size() ? "" : track.handler + " has samples that were never put";
}

std::string check_samples(const recording &r)
{
    const std::vector<uint8_t> file = r.file();
    const box_reader::movie movie = box_reader::read_movie(file);
    const bool taken = std::any_of(r.frames.begin(), r.frames.end(),
                                   [](const put_frame &frame) { return frame.result >= 0; });
    std::string fault = taken ? movie.error : ""; // without frames there is no movie box
    for (const box_reader::track &track : movie.tracks) {
        fault = fault.empty() ? check_track(r, file, track) : fault;
    }
    return fault;
}

std::vector<uint8_t> bytes(const std::string &notation)
{
    std::vector<uint8_t> result;
    bool quoted = false;
    for (size_t i = 0; i < notation.size(); i++) {
        if (notation[i] == '\'') {
            quoted = !quoted;
        } else if (quoted) {
            result.push_back(static_cast<uint8_t>(notation[i]));
        } else if (notation[i] != ' ') {
            result.push_back(
                static_cast<uint8_t>(std::stoul(notation.substr(i++, 2), nullptr, 16)));
        }
    }
    return result;
}

std::string difference(const std::vector<uint8_t> &a, const std::vector<uint8_t> &b)
{
    const auto [in_a, in_b] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
    if (in_a == a.end() && in_b == b.end()) {
        return "";
    }
    return "at " + std::to_string(in_a - a.begin()) + " of " + std::to_string(a.size()) + " and " +
           std::to_string(b.size());
}

int32_t put_programme(recording &r, uint32_t frames, uint32_t gop)
{
    uint32_t time_ms = 0;
    for (uint32_t i = 0; i < frames; i++) {
        int32_t result = r.video(time_ms, 40 + i * 13 % 90, i % gop == 0);
        if (result >= 0) {
            result = r.audio(time_ms + 2, 20 + i * 7 % 30);
        }
        if (result < 0) {
            return result;
        }
        time_ms += i % 3 == 2 ? 34u : 33u;
    }
    return 0;
}

} // namespace mux_test
