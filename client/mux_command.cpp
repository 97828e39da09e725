#include "client/mux_command.h"

#include "client/failure.h"
#include "client/finished_file.h"
#include "client/input/aac_input.h"
#include "client/input/video_input.h"
#include "client/interruption.h"
#include "client/mux_file.h"
#include "client/report/figures.h"
#include "client/terminal.h"
#include "client/work_folder.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

// Sound this late is not noticed.
static constexpr int64_t kLateToleranceUs = 40'000;

// Gaps in the sound are reported from this total on.
static constexpr int64_t kGapToleranceUs = 100'000;

struct muxing {
    std::unique_ptr<video_input> video; // null: no such track
    std::unique_ptr<aac_input> audio;
    std::optional<video_unit> picture; // the next one
    int64_t origin_us = 0;             // of the first picture
    int64_t audio_units = 0;           // written so far
    int64_t left_out_us = 0;           // of sound before the first picture
    int64_t late_us = 0;               // from the first picture to the first sound
    mux_file out;
};

// Both tracks of the file begin at 0. Leaves out whole access units of the sound before the first
// picture, and notes how late it begins.
static void align_sound(muxing &self, const mux_options &options)
{
    const bool one_file = self.video->file->clock.other != nullptr;
    const int64_t begin_us = one_file ? self.audio->begin_us : self.video->begin_us;
    const int64_t late_us = begin_us - self.origin_us;
    if (std::abs(late_us) > kAlignmentMaxUs) {
        stream_clock_part(self.audio->file->clock);
        return;
    }
    const int64_t units = -late_us * self.audio->rate / (kSecondUs * kAacUnitSamples);
    int64_t skipped = 0;
    while (skipped < units && aac_input_next(*self.audio)) {
        skipped++;
    }
    if (self.audio->packet == nullptr) {
        throw failure(exit_code::unsupported,
                      options.audio + ": its sound ends before the first picture");
    }
    self.left_out_us = aac_input_span_us(*self.audio, skipped);
    self.late_us = late_us + self.left_out_us;
}

static void open_inputs(muxing &self, const mux_options &options)
{
    const std::optional<AVRational> frame_rate = parse_frame_rate(options.frame_rate);
    if (!options.video.empty()) {
        self.video = video_input_open(options.video, frame_rate);
    }
    if (!options.audio.empty()) {
        self.audio = aac_input_open(options.audio, self.video ? self.video->file.get() : nullptr);
    }
    if (self.video != nullptr) {
        video_input_read_ahead(*self.video);
        self.picture = video_input_next(*self.video);
        self.origin_us = self.picture->time_us;
    }
    if (self.video != nullptr && self.audio != nullptr) {
        align_sound(self, options);
    }
}

static void describe_now(mp4_mux_input_t &tracks)
{
    const time_t now = time(nullptr);
    std::tm date = {};
    gmtime_r(&now, &date);
    tracks.m_iYear = date.tm_year + 1900;
    tracks.m_iMonth = date.tm_mon;
    tracks.m_iDay = date.tm_mday;
    tracks.m_iWeekDay = date.tm_wday;
    tracks.m_iHour = date.tm_hour;
    tracks.m_iMinute = date.tm_min;
    tracks.m_iSecond = date.tm_sec;
}

static void open_output(muxing &self, const mux_options &options, const work_folder &folder)
{
    mp4_mux_input_t tracks = {};
    std::vector<uint8_t> sets;
    describe_now(tracks);
    if (self.video != nullptr) {
        const AVCodecParameters &codec = *self.video->file->stream->codecpar;
        sets = access_unit_configuration(self.video->converter);
        tracks.m_iVideoWidth = codec.width;
        tracks.m_iVideoHeight = codec.height;
        tracks.m_iVideoFrameRate = static_cast<int32_t>(
            av_rescale(1000, self.video->frame_rate.num, self.video->frame_rate.den));
        std::memcpy(&tracks.m_uiVideoFourCC, "avc1", 4);
        tracks.m_pbyVideoPrivate = sets.data();
        tracks.m_iVideoPrivateSize = static_cast<int32_t>(sets.size());
    }
    if (self.audio != nullptr) {
        tracks.m_iAudioSampleRate = self.audio->rate;
        tracks.m_iAudioBitsPerSample = 16;
        tracks.m_iAudioChannels = self.audio->channels;
        tracks.m_iAudioCodec = MUX_AUDIO_AAC;
        tracks.m_pbyAudioPrivate = self.audio->config.data();
        tracks.m_iAudioPrivateSize = static_cast<int32_t>(self.audio->config.size());
    }
    mux_file_open(self.out, options, work_folder_path(folder, kWorkMovie),
                  work_folder_path(folder, ""), tracks);
}

static uint32_t milliseconds(int64_t time_us)
{
    return static_cast<uint32_t>(time_us / 1000);
}

static void put_picture(muxing &self)
{
    mux_file_put(self.out, MUX_TYPE_VIDEO, access_unit_with_lengths(self.picture->unit),
                 milliseconds(self.picture->time_us - self.origin_us), self.picture->unit.idr);
    self.picture = video_input_next(*self.video);
}

// Writes the frames of both tracks in the order of their times.
static void put_all(muxing &self)
{
    bool has_audio = self.audio != nullptr;
    while (self.picture || has_audio) {
        interruption_check();
        const int64_t sound_us = has_audio ? aac_input_span_us(*self.audio, self.audio_units) : 0;
        if (self.picture && (!has_audio || self.picture->time_us - self.origin_us <= sound_us)) {
            put_picture(self);
        } else if (const auto unit = aac_input_next(*self.audio)) {
            mux_file_put(self.out, MUX_TYPE_AUDIO, *unit, milliseconds(sound_us), true);
            self.audio_units++;
        } else {
            has_audio = false;
        }
    }
}

static file_summary read_back(const work_folder &folder)
{
    const int file = openat(folder.folder.descriptor, kWorkMovie, O_RDONLY | O_CLOEXEC);
    const std::optional<file_summary> summary = file >= 0 ? finished_file_read(file) : std::nullopt;
    if (file >= 0) {
        close(file);
    }
    if (!summary || !summary->faults.empty()) {
        throw failure(exit_code::component, "the muxer made an invalid file");
    }
    return *summary;
}

static void warn(const std::string &path, const char *what, int64_t number, const char *unit = "")
{
    if (number > 0) {
        terminal_say("tdmbrec: warning: " + path + ": " + what + ": " + std::to_string(number) +
                     unit);
    }
}

static void warn_of_video(const std::string &path, const video_input &video)
{
    warn(path, "pictures left out before the first IDR picture", video.leading);
    warn(path, "damaged access units left out", video.damaged);
    warn(path, "damaged parameter sets left out", video_input_damaged_sets(video));
}

static void warn_of_sound(const std::string &path, const muxing &self)
{
    const aac_input &audio = *self.audio;
    const int64_t gaps_us =
        audio.last_us - audio.begin_us - aac_input_span_us(audio, audio.packets - 1);
    warn(path, "sound before the first picture left out", self.left_out_us / 1000, " ms");
    warn(path, "sound that begins after the first picture moved to the front by",
         self.late_us > kLateToleranceUs ? self.late_us / 1000 : 0, " ms");
    warn(path, "gaps in the sound closed; the sound after them is early by",
         gaps_us > kGapToleranceUs ? gaps_us / 1000 : 0, " ms");
}

static void warn_of_jumps(const mux_options &options, const muxing &self)
{
    const unsigned of_video = self.video != nullptr ? self.video->file->clock.jumps : 0;
    const unsigned of_sound = self.audio != nullptr ? self.audio->file->clock.jumps : 0;
    if (self.video != nullptr && self.video->file->clock.other != nullptr) {
        warn(options.video, "jumps of the clock closed", of_video + of_sound);
    } else {
        warn(options.video, "jumps of the video's clock closed", of_video);
        warn(options.audio, "jumps of the audio's clock closed", of_sound);
    }
}

static void report(const mux_options &options, const muxing &self, const file_summary &file,
                   double elapsed_s)
{
    if (self.video != nullptr) {
        warn_of_video(options.video, *self.video);
    }
    if (self.audio != nullptr) {
        warn_of_sound(options.audio, self);
    }
    warn_of_jumps(options, self);
    for (const std::string &remark : finished_file_remarks(file)) {
        terminal_say("tdmbrec: warning: " + remark);
    }
    terminal_print(
        options.output +
        format_text(
            ": %s, %s (%llu bytes; the muxer estimated %lld), %llu pictures, %llu sound "
            "frames; took %s\n",
            duration_text(file.duration_s).c_str(), size_text(file.bytes).c_str(),
            static_cast<unsigned long long>(file.bytes), static_cast<long long>(self.out.estimate),
            static_cast<unsigned long long>(file.video.frames),
            static_cast<unsigned long long>(file.audio.frames), elapsed_text(elapsed_s).c_str()));
}

int mux_run(const mux_options &options)
{
    const auto begun = std::chrono::steady_clock::now();
    const std::unique_ptr<work_folder> folder = work_folder_make(options.output, options.force);
    output_place_check_inputs(options.output, {options.video, options.audio});
    muxing self;
    open_inputs(self, options);
    open_output(self, options, *folder);
    put_all(self);
    mux_file_close(self.out, options);
    const file_summary file = read_back(*folder);
    work_folder_publish(*folder, kWorkMovie);
    report(options, self, file,
           std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count());
    return 0;
}
