#include "client/input/video_input.h"

#include "client/failure.h"
#include "client/input/nal_unit.h"
#include "client/input/picture_check.h"
#include "client/input/shell_word.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

extern "C" {
#include <libavutil/parseutils.h>
}

// Within this many units, reordered pictures and changed or damaged parameter sets mostly show.
static constexpr size_t kReadAheadUnits = 100;

// Of a live source, whose recording is not to begin seconds late, unless the stream announces
// reordered pictures.
static constexpr size_t kLiveReadAheadUnits = 16;

// At most this many units are held back while their parameter sets may be damaged.
static constexpr size_t kDoubtedUnitsMax = 1000;

// The profile_idc values of 8-bit 4:2:0 pictures.
static constexpr int kProfiles[] = {FF_PROFILE_H264_BASELINE, FF_PROFILE_H264_MAIN,
                                    FF_PROFILE_H264_EXTENDED, FF_PROFILE_H264_HIGH};

static constexpr int kFrameRateMin = 1, kFrameRateMax = 240;

// The distance given to pictures whose times do not rise.
static constexpr int64_t kShortestStepUs = 1'000;

// The usual time between two pictures is the median of this many.
static constexpr size_t kUsualSteps = 15;

[[noreturn]] static void refuse(const video_input &video, const std::string &what)
{
    throw failure(exit_code::unsupported, video.file->path + ": " + what);
}

// returns: a time in the programme, for the user
static std::string clock_text(int64_t time_us)
{
    char text[48] = "";
    std::snprintf(text, sizeof text, "%.2f s", static_cast<double>(time_us) / 1e6);
    return text;
}

static bool is_frame_rate(AVRational rate)
{
    const double per_second = rate.den == 0 ? 0 : av_q2d(rate);
    return per_second >= kFrameRateMin && per_second <= kFrameRateMax;
}

std::optional<AVRational> parse_frame_rate(const std::optional<std::string> &text)
{
    if (!text) {
        return std::nullopt;
    }
    AVRational rate = {0, 1};
    if (av_parse_video_rate(&rate, text->c_str()) < 0 || !is_frame_rate(rate)) {
        throw failure(exit_code::usage,
                      "--frame-rate takes a number from " + std::to_string(kFrameRateMin) + " to " +
                          std::to_string(kFrameRateMax) + ", not \"" + *text + "\"");
    }
    return rate;
}

static AVRational choose_frame_rate(const media_file &file, std::optional<AVRational> wanted)
{
    const AVStream &stream = *file.stream;
    for (const AVRational rate :
         {wanted.value_or(AVRational{0, 1}), stream.avg_frame_rate, stream.r_frame_rate}) {
        if (is_frame_rate(rate)) {
            return rate;
        }
    }
    return {kDefaultFrameRate, 1};
}

int64_t video_input_interval_us(const video_input &video)
{
    return av_rescale_q(1, av_inv_q(video.frame_rate), kMicroseconds);
}

static std::string recoding_hint(const video_input &video)
{
    return "; re-encode it without them: ffmpeg -i " + shell_word(video.file->path) +
           " -c:v libx264 -bf 0 -pix_fmt yuv420p -c:a copy new.mkv";
}

[[noreturn]] static void refuse_order(const video_input &video)
{
    refuse(video, "its pictures are not in display order (B pictures), which cannot be recorded" +
                      recoding_hint(video));
}

// Without time stamps, only the slice types can show another order.
static void check_order(video_input &video, const AVPacket &packet, const access_unit &unit)
{
    if (media_file_is_raw(*video.file)) {
        if (unit.bi_predicted) {
            refuse_order(video);
        }
        return;
    }
    const std::optional<int64_t> display_us = media_file_time_us(*video.file, packet.pts);
    const std::optional<int64_t> decode_us = media_file_time_us(*video.file, packet.dts);
    if (display_us && decode_us && video.display_us && video.decode_us &&
        *display_us < *video.display_us && *decode_us > *video.decode_us) {
        refuse_order(video);
    }
    video.display_us = display_us;
    video.decode_us = decode_us;
}

static void note_loss(video_input &video, loss_kind kind, int64_t at_us, int64_t length_us,
                      unsigned units)
{
    if (video.begun) { // what comes before the recording is not missing in it
        loss_note(video.losses, {loss_track::video, kind, at_us, length_us, units});
    }
}

// returns: the usual time between two pictures: a stream may have fewer than its nominal rate
static int64_t usual_step_us(const video_input &video)
{
    std::vector<int64_t> sorted = video.steps_us;
    const auto middle = sorted.begin() + static_cast<ptrdiff_t>(sorted.size() / 2);
    std::nth_element(sorted.begin(), middle, sorted.end());
    return std::max(video_input_interval_us(video), sorted.empty() ? 0 : *middle);
}

// Notes the pictures that are missing before a picture.
static void note_step(video_input &video, int64_t time_us)
{
    const int64_t step_us = time_us - *video.last_us;
    const int64_t usual_us = usual_step_us(video);
    if (step_us > usual_us + usual_us / 2) {
        note_loss(video, loss_kind::pictures_missing, *video.last_us + usual_us, step_us - usual_us,
                  static_cast<unsigned>((step_us - usual_us + usual_us / 2) / usual_us));
    }
    if (video.steps_us.size() < kUsualSteps) {
        video.steps_us.push_back(step_us);
    } else {
        video.steps_us[static_cast<size_t>(video.packets) % kUsualSteps] = step_us;
    }
}

// returns: the time of the packet's picture
static int64_t place_in_time(video_input &video, const AVPacket &packet)
{
    const int64_t step_us = video_input_interval_us(video);
    if (media_file_is_raw(*video.file)) {
        return av_rescale_q(video.packets, av_inv_q(video.frame_rate), kMicroseconds);
    }
    const std::optional<int64_t> time_us =
        media_file_time_us(*video.file, packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts);
    if (!time_us || !video.last_us) {
        return time_us.value_or(video.last_us ? *video.last_us + step_us : 0);
    }
    return std::max(*time_us, *video.last_us + kShortestStepUs);
}

static void judge(video_input &video, unit_verdict verdict)
{
    switch (verdict) {
    case unit_verdict::partitioned:
        refuse(video, "uses data partitioning, which cannot be recorded");
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

// Notes an access unit that is left out, and one in which bytes are missing or wrong although its
// form is valid. The demuxer ends a unit where the next one begins, and marks it as it marks that
// one.
static void note_damage(video_input &video, unit_verdict verdict, const AVPacket &packet,
                        int64_t time_us)
{
    const bool is_corrupt = video.next_is_corrupt;
    video.next_is_corrupt = (packet.flags & AV_PKT_FLAG_CORRUPT) != 0;
    if (verdict == unit_verdict::malformed) {
        note_loss(video, loss_kind::pictures_left_out, time_us, usual_step_us(video), 1);
    } else if (verdict == unit_verdict::ready && is_corrupt) {
        note_loss(video, loss_kind::pictures_damaged, time_us, usual_step_us(video), 1);
    }
}

static void check_profile(const video_input &video)
{
    for (const parameter_set &set : video.converter.sets) {
        const bool is_sequence = set.type == kNalSps && set.bytes.size() > 1;
        const int profile = is_sequence ? set.bytes[1] : FF_PROFILE_H264_HIGH;
        if (std::find(std::begin(kProfiles), std::end(kProfiles), profile) == std::end(kProfiles)) {
            const char *const name = avcodec_profile_name(AV_CODEC_ID_H264, profile);
            refuse(video,
                   "is H.264 of the profile " + (name != nullptr ? name : std::to_string(profile)) +
                       "; only Baseline, Main, Extended and High, with 8-bit 4:2:0 pictures, can "
                       "be recorded");
        }
    }
}

// With damaged sets before its first picture, no picture of the file could be shown.
static bool can_begin(video_input &video, const access_unit &unit)
{
    if (!unit.idr) {
        return false;
    }
    if (picture_decodes(unit.bytes)) {
        return true;
    }
    video.undecoded++;
    video.converter.sets = video.configured_sets;
    video.converter.sent.clear();
    return false;
}

// Only one profile has data partitions. In others, a wrong bit has made one.
static bool may_have_partitions(const video_input &video)
{
    return std::any_of(video.converter.sets.begin(), video.converter.sets.end(),
                       [](const parameter_set &set) {
                           return set.type == kNalSps && set.bytes.size() > 1 &&
                                  set.bytes[1] == FF_PROFILE_H264_EXTENDED;
                       });
}

static unit_verdict convert(video_input &video, const AVPacket &packet, access_unit &unit)
{
    const unsigned damaged_sets = video.converter.damaged_sets;
    const unit_verdict verdict =
        access_unit_convert(video.converter, {packet.data, static_cast<size_t>(packet.size)}, unit);
    if (video.converter.damaged_sets > damaged_sets) {
        note_loss(video, loss_kind::sets_left_out, video.last_us.value_or(0), 0,
                  video.converter.damaged_sets - damaged_sets);
    }
    return verdict == unit_verdict::partitioned && !may_have_partitions(video)
               ? unit_verdict::malformed
               : verdict;
}

static std::optional<video_unit> read_unit(video_input &video)
{
    while (const packet_ptr packet = media_file_read(*video.file)) {
        access_unit unit;
        const unit_verdict verdict = convert(video, *packet, unit);
        if (verdict == unit_verdict::empty) {
            continue;
        }
        const int64_t time_us = place_in_time(video, *packet);
        if (video.last_us) {
            note_step(video, time_us);
        }
        video.last_us = time_us;
        if (video.packets++ == 0) {
            video.begin_us = time_us;
        }
        judge(video, verdict);
        note_damage(video, verdict, *packet, time_us);
        if (verdict != unit_verdict::ready) {
            continue;
        }
        check_order(video, *packet, unit);
        if (!video.begun && !can_begin(video, unit)) {
            video.leading++;
            continue;
        }
        video.begun = true;
        return video_unit{std::move(unit), time_us};
    }
    return std::nullopt;
}

[[noreturn]] static void refuse_change(const video_input &video)
{
    refuse(video, "changes its parameter sets at " +
                      clock_text(video.doubted.front().time_us - video.begin_us) +
                      "; a recording can hold only one set of them");
}

static void release_doubted(video_input &video)
{
    std::move(video.doubted.begin(), video.doubted.end(), std::back_inserter(video.ahead));
    video.doubted.clear();
}

// Before the first unit is returned, the sets before the first picture may be the damaged ones:
// then no other picture has them, and the first one can also be decoded with the later sets.
// returns: whether the later sets replaced them
static bool take_later_sets(video_input &video)
{
    const auto is_idr = [](const video_unit &one) { return one.unit.idr; };
    const std::vector<uint8_t> sets = video.doubted.front().unit.other_sets;
    if (video.given || std::count_if(video.ahead.begin(), video.ahead.end(), is_idr) != 1) {
        return false;
    }
    access_unit first = video.ahead.front().unit;
    access_unit_replace_sets(video.converter, first, sets);
    if (!picture_decodes(first.bytes)) {
        return false;
    }
    video.ahead.front().unit = std::move(first);
    access_unit_replace_sets(video.converter, video.doubted.front().unit, sets);
    access_unit_adopt_sets(video.converter, sets);
    return true;
}

// Continues with the parameter sets of the doubted units, where the user allows it.
static void take_change(video_input &video)
{
    if (!video.may_change) {
        refuse_change(video);
    }
    const std::vector<uint8_t> sets = video.doubted.front().unit.other_sets;
    for (video_unit &one : video.doubted) {
        if (one.unit.idr) {
            access_unit_replace_sets(video.converter, one.unit, sets);
        }
    }
    video.doubted.front().new_format = true;
    access_unit_adopt_sets(video.converter, sets);
    check_profile(video);
}

// Other parameter sets before a single IDR picture are taken as damage, unless the picture cannot
// be decoded without them; before two in turn, they are a change.
// in: the next IDR picture; null when there is none
static void judge_doubt(video_input &video, video_unit *next)
{
    const access_unit &first = video.doubted.front().unit;
    const bool is_repeated = next != nullptr && next->unit.other_sets == first.other_sets;
    if (is_repeated) {
        access_unit second = next->unit;
        access_unit_replace_sets(video.converter, second, first.other_sets);
        next->unit = std::move(second);
    }
    const bool is_damage =
        is_repeated ? take_later_sets(video) : next != nullptr || picture_decodes(first.bytes);
    if (is_damage) {
        video.damaged_sets++;
        note_loss(video, loss_kind::sets_left_out, video.doubted.front().time_us, 0, 1);
    } else {
        take_change(video);
    }
    release_doubted(video);
}

// Reads one unit.
// returns: false at the end, and while the clock waits
static bool read_more(video_input &video)
{
    std::optional<video_unit> unit;
    try {
        unit = read_unit(video);
    } catch (const failure &broken) {
        if (broken.code != exit_code::input || video.doubted.empty()) {
            throw; // otherwise the next call throws it again
        }
    }
    if (!unit && video.file->clock.waits) {
        return false;
    }
    const bool is_over = !unit || video.doubted.size() >= kDoubtedUnitsMax;
    if (!video.doubted.empty() && (is_over || unit->unit.idr)) {
        judge_doubt(video, unit && unit->unit.idr ? &*unit : nullptr);
    }
    if (unit) {
        const bool is_doubted = !video.doubted.empty() || !unit->unit.other_sets.empty();
        (is_doubted ? video.doubted : video.ahead).push_back(std::move(*unit));
    }
    return unit.has_value();
}

unsigned video_input_damaged_sets(const video_input &video)
{
    return video.damaged_sets + video.converter.damaged_sets;
}

std::unique_ptr<video_input> video_input_open(const std::string &path,
                                              std::optional<AVRational> frame_rate)
{
    return video_input_of(media_file_open(path, AVMEDIA_TYPE_VIDEO), frame_rate);
}

std::unique_ptr<video_input> video_input_of(std::unique_ptr<media_file> file,
                                            std::optional<AVRational> frame_rate)
{
    std::unique_ptr<video_input> video = std::make_unique<video_input>();
    video->file = std::move(file);
    const std::string &path = video->file->path;
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
    // For raw streams, the demuxer's configuration only repeats sets of the stream.
    if (!media_file_is_raw(*video->file) &&
        !access_unit_configure(video->converter,
                               {codec.extradata, static_cast<size_t>(codec.extradata_size)})) {
        throw failure(exit_code::input, path + ": its H.264 configuration is damaged");
    }
    video->configured_sets = video->converter.sets;
    video->file->clock.step_us = video_input_interval_us(*video);
    return video;
}

void video_input_read_ahead(video_input &video)
{
    const bool is_short =
        video.file->live != nullptr && video.file->stream->codecpar->video_delay == 0;
    const size_t units = is_short ? kLiveReadAheadUnits : kReadAheadUnits;
    try {
        while ((video.ahead.size() < units || !video.doubted.empty()) && read_more(video)) {
        }
    } catch (const failure &broken) {
        if (broken.code != exit_code::input || !video.begun) {
            throw; // otherwise the call after the last unit throws it again
        }
    }
    if (!video.begun) {
        refuse(video, video.lacked_sets
                          ? "holds no parameter sets (SPS and PPS), without which it cannot be "
                            "recorded"
                      : video.undecoded > 0
                          ? "holds no IDR picture that can be decoded"
                          : "holds no IDR picture, with which a recording must begin");
    }
    check_profile(video); // now that the sets of the first picture are known not to be damaged
}

std::optional<video_unit> video_input_next(video_input &video)
{
    video.given = true;
    while (video.ahead.empty() && read_more(video)) {
    }
    if (video.ahead.empty()) {
        return std::nullopt;
    }
    std::optional<video_unit> unit = std::move(video.ahead.front());
    video.ahead.pop_front();
    return unit;
}
