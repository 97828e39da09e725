#include "client/input/programme_input.h"

#include "client/failure.h"
#include "component/tdmbrec_interface.h"

#include <algorithm>
#include <array>
#include <limits>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

// Sound and pictures may end this far from each other: a broadcast that is cut anywhere ends so.
static constexpr int64_t kEndToleranceUs = 1 * kSecondUs;

static int64_t video_time_us(const programme_input &programme)
{
    return programme.next_video->time_us - programme.origin_us;
}

static int64_t audio_time_us(const programme_input &programme)
{
    return av_rescale(programme.audio_blocks * static_cast<int64_t>(kAudioBlockSamples), kSecondUs,
                      programme.audio->rate);
}

int programme_sample_rate(const programme_input &programme)
{
    return programme.audio != nullptr ? programme.audio->rate : kDefaultRate;
}

int64_t programme_block_us(const programme_input &programme)
{
    return av_rescale(kAudioBlockSamples, kSecondUs, programme_sample_rate(programme));
}

std::optional<int64_t> programme_sound_time_us(const programme_input &programme)
{
    return programme.has_audio ? std::optional(audio_time_us(programme)) : std::nullopt;
}

static void begin_audio(programme_input &programme)
{
    const stream_clock &clock = programme.video->file->clock;
    const int64_t between_us =
        clock.other != nullptr ? 0 : programme.audio->begin_us - programme.video->begin_us;
    audio_input_start_at(*programme.audio,
                         programme.origin_us + between_us + programme_block_us(programme));
}

// The live sources of a programme; null where it has none. One source may be both.
struct live_pair {
    std::shared_ptr<live_source> video, audio;
};

// returns: the name that the operating system has for an input
static std::string local_name(const std::string &path)
{
    static constexpr std::string_view kPrefix = "file:", kRoot = "//";
    std::string name = path == "-" ? "/dev/stdin" : path;
    if (name.starts_with(kPrefix) && access(name.c_str(), F_OK) != 0) {
        name.erase(0, kPrefix.size());
        name.erase(0, name.starts_with(kRoot) ? kRoot.size() : 0);
    }
    return name;
}

static bool is_same_input(const live_source &video, const std::string &audio_path)
{
    struct stat one = {};
    struct stat other = {};
    return video.io.path == audio_path ||
           (video.io.descriptor >= 0 && fstat(video.io.descriptor, &one) == 0 &&
            stat(audio_path.c_str(), &other) == 0 && one.st_dev == other.st_dev &&
            one.st_ino == other.st_ino);
}

// Opens both before either is waited for: their writer may open one after the other.
static live_pair open_live(const programme_source &source)
{
    live_pair live;
    const std::string video = local_name(source.video);
    const std::string audio = local_name(source.audio);
    if (live_io_is(video)) {
        live.video = live_source_open(video, source.on_wait);
    }
    if (live.video != nullptr && is_same_input(*live.video, audio)) {
        live.audio = live.video;
    } else if (source.with_audio && live_io_is(audio)) {
        live.audio = live_source_open(audio, source.on_wait);
    }
    const bool are_two = live.video != nullptr && live.audio != nullptr && live.video != live.audio;
    if (are_two && live.video->io.descriptor >= 0 && live.audio->io.descriptor >= 0) {
        live.video->io.companion = &live.audio->io;
        live.audio->io.companion = &live.video->io;
    }
    return live;
}

// returns: the sources to begin with, local or remote ones
static std::vector<live_source *> sources_of(const live_pair &live, bool are_local)
{
    std::vector<live_source *> found;
    for (live_source *const source : {live.video.get(), live.audio.get()}) {
        const bool is_known = !found.empty() && found.front() == source;
        if (source != nullptr && !is_known && (source->io.descriptor >= 0) == are_local) {
            found.push_back(source);
        }
    }
    return found;
}

// Remote sources are connected at the moment of the start. Local ones are read until then, so that
// their writers do not stop.
static void begin_live(const live_pair &live, const programme_source &source)
{
    const auto begin = [&](const std::vector<live_source *> &sources) {
        for (live_source *const one : sources) {
            live_source_begin(*one, one == live.video.get() ? 0 : source.pcm_rate);
        }
    };
    const std::vector<live_source *> local = sources_of(live, true);
    begin(local);
    if (source.start_at) {
        live_sources_discard(local, *source.start_at, source.on_wait);
    }
    begin(sources_of(live, false));
}

static std::unique_ptr<media_file> open_file(const std::shared_ptr<live_source> &live,
                                             const std::string &path, AVMediaType kind,
                                             int pcm_rate)
{
    return live != nullptr ? media_file_of(live, kind)
                           : media_file_open(local_name(path), kind, pcm_rate);
}

// Opens the sound, unless the input of both streams has none.
// returns: whether it has none
static bool open_audio(programme_input &programme, const live_pair &live,
                       const programme_source &source)
{
    media_file &file = *programme.video->file;
    const bool is_lacking =
        source.video == source.audio && !media_file_has(file, AVMEDIA_TYPE_AUDIO);
    if (!is_lacking) {
        programme.audio = audio_input_of(
            open_file(live.audio, source.audio, AVMEDIA_TYPE_AUDIO, source.pcm_rate), file);
    }
    return is_lacking;
}

// returns: the files of the streams; null where there is no sound
static std::array<media_file *, 2> files_of(const programme_input &programme)
{
    return {programme.video->file.get(),
            programme.audio != nullptr ? programme.audio->decoder->file.get() : nullptr};
}

static void begin_streams(programme_input &programme)
{
    for (media_file *const one : files_of(programme)) {
        if (one != nullptr) {
            one->clock.may_wait = true;
        }
        if (one != nullptr && one->live != nullptr) {
            one->live->begun = true;
        }
    }
}

std::unique_ptr<programme_input> programme_open(const programme_source &source)
{
    std::unique_ptr<programme_input> programme = std::make_unique<programme_input>();
    const live_pair live = open_live(source);
    begin_live(live, source);
    programme->video = video_input_of(open_file(live.video, source.video, AVMEDIA_TYPE_VIDEO, 0),
                                      source.frame_rate);
    programme->video->may_change = source.may_change.value_or(live.video != nullptr);
    const bool lacks_audio = source.with_audio && open_audio(*programme, live, source);
    video_input_read_ahead(*programme->video);
    if (lacks_audio) {
        throw failure(exit_code::input,
                      source.audio + ": holds no audio (name another file with --audio, or add "
                                     "--no-audio)");
    }
    programme->next_video = video_input_next(*programme->video);
    programme->origin_us = programme->next_video->time_us;
    if (programme->audio != nullptr) {
        begin_audio(*programme);
    }
    begin_streams(*programme);
    if (programme->audio != nullptr) {
        programme->has_audio = audio_input_next(*programme->audio, programme->next_audio);
    }
    return programme;
}

bool programme_stop_live(programme_input &programme)
{
    bool has_any = false;
    for (const media_file *const file : files_of(programme)) {
        if (file != nullptr && file->live != nullptr) {
            live_source_stop(*file->live);
            has_any = true;
        }
    }
    return has_any;
}

// Replaces the unit that the last call returned. This waits until now, so that the caller has used
// that unit before a failure.
static void refill(programme_input &programme)
{
    const std::optional<unit_kind> given = programme.given;
    programme.given.reset();
    if (given == unit_kind::video) {
        programme.next_video.reset();
        programme.next_video = video_input_next(*programme.video);
    } else if (given == unit_kind::audio) {
        programme.audio_blocks++;
        programme.has_audio = false;
        programme.has_audio = audio_input_next(*programme.audio, programme.next_audio);
        if (programme.video->file->clock.waits) {
            programme.next_video = video_input_next(*programme.video);
        }
    }
}

// Where a file with both streams breaks off in one, the units of the other up to there are kept.
static void refill_to_the_end(programme_input &programme)
{
    try {
        refill(programme);
    } catch (const failure &broken) {
        const bool is_one_file = programme.video->file->clock.other != nullptr;
        if (broken.code != exit_code::input || !is_one_file) {
            throw;
        }
        programme.fault = std::current_exception();
    }
}

// Takes over the losses that a stream has noted up to a time of the programme.
// in: the programme's begin on the line of these losses
static void take_losses(programme_input &programme, std::vector<loss> &noted, int64_t origin_us,
                        int64_t until_us)
{
    std::vector<loss> later;
    for (loss one : noted) {
        if (one.at_us - origin_us > until_us) {
            later.push_back(one);
            continue;
        }
        one.at_us -= origin_us;
        if (one.at_us >= 0) { // else before the programme
            loss_account_add(programme.losses, one);
        }
    }
    noted = std::move(later);
}

// For streams of which each has its own clock.
static void set_track(std::vector<loss> &losses, loss_track track)
{
    for (loss &one : losses) {
        one.track = track;
    }
}

static void take_all_losses(programme_input &programme, int64_t until_us)
{
    video_input &video = *programme.video;
    stream_clock &clock = video.file->clock;
    if (clock.other == nullptr) {
        set_track(clock.losses, loss_track::video);
    }
    take_losses(programme, clock.losses, programme.origin_us, until_us);
    take_losses(programme, video.losses, programme.origin_us, until_us);
    if (programme.audio == nullptr) {
        return;
    }
    audio_input &audio = *programme.audio;
    audio_decoder &decoder = *audio.decoder;
    const int64_t ahead_us = programme_block_us(programme); // the sound begins one block later
    if (clock.other == nullptr) {
        set_track(decoder.file->clock.losses, loss_track::audio);
    }
    take_losses(programme, decoder.file->clock.losses, audio.origin_us - ahead_us, until_us);
    take_losses(programme, decoder.losses, audio.origin_us - ahead_us, until_us);
    take_losses(programme, audio.losses, -ahead_us, until_us);
}

// Completes the account at the end of the programme.
static void account_for_end(programme_input &programme)
{
    take_all_losses(programme, std::numeric_limits<int64_t>::max() / 2);
    const video_input &video = *programme.video;
    const int64_t video_end_us =
        *video.last_us + video_input_interval_us(video) - programme.origin_us;
    if (programme.audio == nullptr) {
        return;
    }
    const int64_t audio_end_us =
        audio_input_end_us(*programme.audio) + programme_block_us(programme);
    if (audio_end_us + kEndToleranceUs < video_end_us) {
        loss_account_add(programme.losses, {loss_track::audio, loss_kind::sound_ended, audio_end_us,
                                            video_end_us - audio_end_us, 0});
    } else if (video_end_us + kEndToleranceUs < audio_end_us) {
        loss_account_add(programme.losses, {loss_track::video, loss_kind::pictures_ended,
                                            video_end_us, audio_end_us - video_end_us, 0});
    }
}

// Completes the account where the input breaks off.
static void account_for_break(programme_input &programme)
{
    account_for_end(programme);
    const int64_t end_us = std::max(*programme.video->last_us - programme.origin_us,
                                    programme.audio != nullptr ? audio_time_us(programme) : 0);
    loss_account_add(programme.losses, {loss_track::both, loss_kind::broken_off, end_us, 0, 0});
}

std::optional<programme_unit> programme_next(programme_input &programme)
{
    try {
        refill_to_the_end(programme);
    } catch (const failure &broken) {
        if (broken.code == exit_code::input) {
            account_for_break(programme);
        }
        throw;
    }
    if (!programme.next_video && !programme.has_audio) {
        if (programme.fault) {
            account_for_break(programme);
            std::rethrow_exception(programme.fault);
        }
        account_for_end(programme);
        return std::nullopt;
    }
    // A picture waits for the sound that ends before it.
    const bool video_first =
        programme.next_video &&
        (!programme.has_audio ||
         video_time_us(programme) < audio_time_us(programme) + programme_block_us(programme));
    take_all_losses(programme, video_first ? video_time_us(programme) : audio_time_us(programme));
    if (video_first) {
        programme.given = unit_kind::video;
        const video_unit &next = *programme.next_video;
        return programme_unit{unit_kind::video, video_time_us(programme), next.unit.bytes,
                              next.unit.idr, next.new_format};
    }
    programme.given = unit_kind::audio;
    const std::span<const int16_t> samples = programme.next_audio;
    return programme_unit{unit_kind::audio,
                          audio_time_us(programme),
                          {reinterpret_cast<const uint8_t *>(samples.data()), samples.size_bytes()},
                          false,
                          false};
}

static void remark(std::vector<std::string> &remarks, const media_file &file, const char *what,
                   unsigned count)
{
    if (count > 0) {
        remarks.push_back(file.path + ": " + what + ": " + std::to_string(count));
    }
}

std::vector<std::string> programme_opening_remarks(const programme_input &programme)
{
    const video_input &video = *programme.video;
    const AVCodecParameters &picture = *video.file->stream->codecpar;
    std::vector<std::string> remarks;
    if (picture.width != TDMBREC_PICTURE_WIDTH || picture.height != TDMBREC_PICTURE_HEIGHT) {
        remarks.push_back(video.file->path + ": has pictures of " + std::to_string(picture.width) +
                          "x" + std::to_string(picture.height) + "; the file will announce " +
                          std::to_string(TDMBREC_PICTURE_WIDTH) + "x" +
                          std::to_string(TDMBREC_PICTURE_HEIGHT) + ", which some players go by");
    }
    remark(remarks, *video.file, "pictures left out before the first IDR picture", video.leading);
    return remarks;
}
