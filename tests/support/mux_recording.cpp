#include "tests/support/mux_recording.h"

#include "mp4read/mp4_reader.h"

#include <algorithm>
#include <cstring>

namespace mux_test {

Bytes operator+(Bytes a, const Bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes bytes(const std::string &notation)
{
    Bytes result;
    bool quoted = false;
    for (size_t i = 0; i < notation.size(); i++) {
        if (notation[i] == '\'') {
            quoted = !quoted;
        } else if (quoted) {
            result.push_back(static_cast<uint8_t>(notation[i]));
        } else if (notation[i] != ' ') {
            const std::string digits = notation.substr(i++, 2);
            result.push_back(static_cast<uint8_t>(std::stoul(digits, nullptr, 16)));
        }
    }
    return result;
}

std::string hex(const Bytes &bytes)
{
    std::string digits;
    for (const uint8_t byte : bytes) {
        digits += "0123456789ABCDEF"[byte >> 4];
        digits += "0123456789ABCDEF"[byte & 15];
    }
    return digits;
}

Bytes number(uint64_t value, size_t width)
{
    Bytes result(width);
    for (; width > 0; value >>= 8) {
        result[--width] = static_cast<uint8_t>(value);
    }
    return result;
}

uint32_t code(const char *characters)
{
    uint32_t value = 0;
    std::memcpy(&value, characters, 4);
    return value;
}

// clang-format off
recording::recording(bool with_64bit, uint32_t flags)
    : init(make_callbacks(with_64bit)),
      input{.m_iYear = 2009, .m_iMonth = 9, .m_iDay = 5, .m_iHour = 17, .m_iMinute = 5,
            .m_iSecond = 18, .m_uiVideoTrackID = 77, .m_iVideoWidth = 320, .m_iVideoHeight = 240,
            .m_uiVideoFourCC = code("avc1"), .m_uiAudioTrackID = 78, .m_iAudioSampleRate = 48000,
            .m_iAudioBitsPerSample = 16, .m_iAudioChannels = 2, .m_iAudioCodec = MUX_AUDIO_AAC}
// clang-format on
{
    init.m_uiStreamFlags = flags;
    init.m_pszTempDir = "/tmp/scratch";
}

void recording::set_cache(cache_layout layout)
{
    static constexpr int32_t kSizes[][3] = {
        {0, 0, 0}, {0x100000, 0xC0000, 0x80000}, {60000, 0, 0}, {8, 17, 9}};
    const auto &[output_bytes, video_bytes, audio_bytes] = kSizes[static_cast<size_t>(layout)];
    static Bytes cache(0x240000, 0xEE); // lent from its end, so that a sanitizer sees overruns
    uint8_t *start = cache.data() + cache.size() - output_bytes - video_bytes - audio_bytes;
    init.m_pCacheMem = output_bytes == 0 ? nullptr : start;
    init.m_iCacheSize = output_bytes;
    init.m_iVideoCacheSize = video_bytes;
    init.m_iAudioCacheSize = audio_bytes;
}

void recording::lend_close_memory(int32_t bytes)
{
    static Bytes memory(0x300000, 0xDD);
    close_mem = {bytes != 0 ? memory.data() + memory.size() - bytes : nullptr, bytes};
}

int32_t recording::open()
{
    init.m_pOutput = init.m_pOutput == nullptr ? output.data() : init.m_pOutput;
    input.m_pbyVideoPrivate = video_private.empty() ? nullptr : video_private.data();
    input.m_iVideoPrivateSize = static_cast<int32_t>(video_private.size());
    input.m_pbyAudioPrivate = audio_private.data();
    input.m_iAudioPrivateSize = static_cast<int32_t>(audio_private.size());
    return QVR_MP4_MUX(MUX_OPEN, &handle, &init, &input);
}

int32_t recording::put(int32_t type, const Bytes &bytes, uint32_t time_ms, bool key)
{
    mp4_mux_putstream_t frame = {bytes.data(), static_cast<int32_t>(bytes.size()), type, time_ms,
                                 time_ms,      key ? uint32_t{MUX_FRAME_KEY} : 0u};
    const int32_t result = QVR_MP4_MUX(MUX_PUTFRAME, &handle, &frame, &estimate);
    frames.push_back({type, bytes, time_ms, key, result});
    return result;
}

static Bytes make_frame(uint32_t time_ms, size_t size)
{
    Bytes frame(size);
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
    return QVR_MP4_MUX(MUX_CLOSE, &handle, &close_mem, nullptr);
}

std::string recording::message(int64_t *aux)
{
    mp4_mux_error_t last = {};
    QVR_MP4_MUX(MUX_GET_LAST_ERROR, &handle, nullptr, &last);
    if (aux != nullptr) {
        *aux = last.m_llAux;
    }
    return last.m_pszMessage != nullptr ? last.m_pszMessage : "(no handle)";
}

std::string check_samples(const recording &r)
{
    const Bytes &file = world.files[r.output].bytes;
    const mp4_reader::movie movie = mp4_reader::read_movie(file);
    size_t found[2] = {};
    bool timed = true;
    for (const put_frame &frame : r.frames) {
        const bool is_video = frame.type == MUX_TYPE_VIDEO;
        const mp4_reader::track *track = find_track(movie, is_video ? "vide" : "soun");
        size_t &at = found[is_video];
        if (frame.result >= 0 && !movie.faults.empty()) {
            return first_fault(movie); // without frames there is no movie box
        }
        const mp4_reader::sample sample = track != nullptr && at < track->samples.size()
                                              ? track->samples[at]
                                              : mp4_reader::sample{UINT32_MAX};
        const bool is_there =
            sample.size == frame.bytes.size() && sample.offset + sample.size <= file.size() &&
            std::equal(frame.bytes.begin(), frame.bytes.end(), file.data() + sample.offset);
        timed = timed && (!is_video || at > 0 || frame.time_ms == 0);
        if (!is_there && frame.result < 0) {
            continue;
        }
        if (!is_there || (is_video && sample.sync != frame.key) ||
            (is_video && timed && sample.time != frame.time_ms * 90)) {
            return "the frame at " + std::to_string(frame.time_ms) + " is lost or wrong";
        }
        at++;
    }
    for (const mp4_reader::track &track : movie.tracks) {
        if (track.samples.size() != found[track.handler == "vide"]) {
            return track.handler + " has samples that were never put";
        }
    }
    return "";
}

} // namespace mux_test
