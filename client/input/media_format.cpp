#include "client/input/media_format.h"

#include "client/failure.h"

#include <cstring>
#include <new>

// The formats that are read. Others could make the demuxer open further files.
static const char format_names[] = "h264,aac,mpegts,mov,mp4,m4a,3gp,3g2,mj2,matroska,webm,wav";
static const char pcm_format_name[] = "s16le";

// A stream without time stamps is otherwise analysed for seconds.
static constexpr int64_t kLiveRawAnalysedUs = 1'000'000;

std::string media_error_text(int error)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = "";
    av_make_error_string(text, sizeof text, error);
    return text;
}

void media_format_open(AVFormatContext *&format, AVIOContext *io, const std::string &path,
                       const media_probe &probe)
{
    av_log_set_level(AV_LOG_QUIET); // this program reports in its own words
    const bool is_pcm = probe.pcm_rate > 0;
    format = avformat_alloc_context();
    if (format == nullptr) {
        throw std::bad_alloc();
    }
    format->pb = io;
    format->flags |= AVFMT_FLAG_CUSTOM_IO;
    format->format_whitelist = av_strdup(is_pcm ? pcm_format_name : format_names);
    AVDictionary *options = nullptr;
    if (is_pcm) {
        av_dict_set_int(&options, "sample_rate", probe.pcm_rate, 0);
        av_dict_set(&options, "ch_layout", "stereo", 0);
    } else { // for raw H.264 that states none; other formats ignore it
        av_dict_set_int(&options, "framerate", kDefaultFrameRate, 0);
    }
    // A transport stream that moves its programme to other packet identifiers continues.
    av_dict_set_int(&options, "merge_pmt_versions", 1, 0);
    const AVInputFormat *const fixed = is_pcm ? av_find_input_format(pcm_format_name) : nullptr;
    int error = avformat_open_input(&format, path.c_str(), fixed, &options);
    av_dict_free(&options);
    if (error == 0) {
        const bool is_raw = std::strcmp(format->iformat->name, "h264") == 0;
        format->max_analyze_duration = probe.is_live && is_raw ? kLiveRawAnalysedUs : 0;
        error = avformat_find_stream_info(format, nullptr);
    }
    if (error < 0) {
        throw failure(exit_code::input,
                      path + ": not readable as raw H.264, WAV, ADTS, MPEG-TS, MP4 or Matroska (" +
                          media_error_text(error) + ")");
    }
}
