#include "client/video_input.h"

#include "client/failure.h"

#include <algorithm>
#include <cstdio>

extern "C" {
#include <libavutil/parseutils.h>
}

// A reordered picture or a change of parameter sets mostly shows within this many units.
static constexpr size_t READ_AHEAD_UNITS = 32;

// Pictures whose times do not rise come this far apart.
static constexpr int64_t SHORTEST_STEP_US = 1'000;

[[noreturn]] static void refuse(const video_input &video, const std::string &what)
{
    throw failure(exit_code::unsupported, video.file->path + ": " + what);
}

// Positions in the programme, for the user.
static std::string clock_text(int64_t time_us)
{
    char text[48] = "";
    std::snprintf(text, sizeof text, "%.2f s", static_cast<double>(time_us) / 1e6);
    return text;
}

std::optional<AVRational> parse_frame_rate(const std::optional<std::string> &text)
{
    if (!text) {
        return std::nullopt;
    }
    AVRational rate = {0, 1};
    if (av_parse_video_rate(&rate, text->c_str()) < 0 || av_q2d(rate) < 1 || av_q2d(rate) > 240) {
        throw failure(exit_code::usage,
                      "--frame-rate takes a number from 1 to 240, not \"" + *text + "\"");
    }
    return rate;
}

static AVRational choose_frame_rate(const media_file &file, std::optional<AVRational> wanted)
{
    const AVStream &stream = *file.stream;
    for (const AVRational rate :
         {wanted.value_or(AVRational{0, 1}), stream.avg_frame_rate, stream.r_frame_rate}) {
        const double per_second = rate.den == 0 ? 0 : av_q2d(rate);
        if (per_second >= 1 && per_second <= 240) {
            return rate;
        }
    }
    return {30, 1};
}

int64_t video_input_interval_us(const video_input &video)
{
    return av_rescale_q(1, av_inv_q(video.frame_rate), {1, 1000000});
}

// Without time stamps, the only sign of another order is the kind of slice.
static void check_order(video_input &video, const AVPacket &packet, const access_unit &unit)
{
    static const char text[] = "its pictures are not in display order (B pictures); only streams "
                               "without reordering can be recorded";
    if (media_file_is_raw(*video.file)) {
        if (unit.bi_predicted) {
            refuse(video, text);
        }
        return;
    }
    const std::optional<int64_t> display_us = media_file_time_us(*video.file, packet.pts);
    const std::optional<int64_t> decode_us = media_file_time_us(*video.file, packet.dts);
    if (display_us && decode_us && video.display_us && video.decode_us &&
        *display_us<*video.display_us && * decode_us> * video.decode_us) {
        refuse(video, text);
    }
    video.display_us = display_us;
    video.decode_us = decode_us;
}

static int64_t place_in_time(video_input &video, const AVPacket &packet)
{
    const int64_t step_us = video_input_interval_us(video);
    if (media_file_is_raw(*video.file)) {
        return av_rescale_q(video.packets, av_inv_q(video.frame_rate), {1, 1000000});
    }
    const std::optional<int64_t> time_us =
        media_file_time_us(*video.file, packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts);
    if (!time_us || !video.last_us) {
        return time_us.value_or(video.last_us ? *video.last_us + step_us : 0);
    }
    return std::max(*time_us, *video.last_us + SHORTEST_STEP_US);
}

static void judge(video_input &video, unit_verdict verdict, int64_t time_us)
{
    const std::string where = " at " + clock_text(time_us - video.begin_us);
    switch (verdict) {
    case unit_verdict::partitioned:
        refuse(video, "uses data partitioning, which cannot be recorded");
    case unit_verdict::sets_changed:
        refuse(video, "changes its parameter sets" + where +
                          "; a recording holds one kind of picture only");
    case unit_verdict::malformed:
        video.damaged++;
        break;
    case unit_verdict::no_sets:
        video.lacked_sets = true;
        video.leading++;
        break;
    case unit_verdict::ready:
    case unit_verdict::empty:
        break;
    }
}

static std::optional<video_unit> read_unit(video_input &video)
{
    while (const packet_ptr packet = media_file_read(*video.file)) {
        access_unit unit;
        const unit_verdict verdict = access_unit_convert(
            video.converter, {packet->data, static_cast<size_t>(packet->size)}, unit);
        if (verdict == unit_verdict::empty) {
            continue;
        }
        const int64_t time_us = place_in_time(video, *packet);
        video.last_us = time_us;
        if (video.packets++ == 0) {
            video.begin_us = time_us;
        }
        judge(video, verdict, time_us);
        if (verdict != unit_verdict::ready) {
            continue;
        }
        check_order(video, *packet, unit);
        if (!video.begun && !unit.idr) {
            video.leading++;
            continue;
        }
        video.begun = true;
        return video_unit{std::move(unit), time_us};
    }
    return std::nullopt;
}

std::unique_ptr<video_input> video_input_open(const std::string &path,
                                              std::optional<AVRational> frame_rate)
{
    std::unique_ptr<video_input> video = std::make_unique<video_input>();
    video->file = media_file_open(path, AVMEDIA_TYPE_VIDEO);
    const AVCodecParameters &codec = *video->file->stream->codecpar;
    if (codec.codec_id != AV_CODEC_ID_H264) {
        refuse(*video, std::string("its video is ") + avcodec_get_name(codec.codec_id) +
                           "; only H.264 can be recorded");
    }
    if (frame_rate && !media_file_is_raw(*video->file)) {
        throw failure(exit_code::usage,
                      "--frame-rate is for raw H.264; " + path + " has time stamps of its own");
    }
    video->frame_rate = choose_frame_rate(*video->file, frame_rate);
    // The demuxer of raw streams gathers parameter sets that the stream itself repeats.
    if (!media_file_is_raw(*video->file) &&
        !access_unit_configure(video->converter,
                               {codec.extradata, static_cast<size_t>(codec.extradata_size)})) {
        throw failure(exit_code::input, path + ": its H.264 configuration is damaged");
    }
    video->file->clock.step_us = video_input_interval_us(*video);
    return video;
}

void video_input_read_ahead(video_input &video)
{
    while (video.ahead.size() < READ_AHEAD_UNITS) {
        std::optional<video_unit> unit = read_unit(video);
        if (!unit) {
            break;
        }
        video.ahead.push_back(std::move(*unit));
    }
    if (!video.begun) {
        refuse(video, video.lacked_sets
                          ? "holds no parameter sets (SPS and PPS), without which nothing can be "
                            "recorded"
                          : "holds no IDR picture, with which a recording has to begin");
    }
}

std::optional<video_unit> video_input_next(video_input &video)
{
    if (video.ahead.empty()) {
        return read_unit(video);
    }
    std::optional<video_unit> unit = std::move(video.ahead.front());
    video.ahead.pop_front();
    return unit;
}
