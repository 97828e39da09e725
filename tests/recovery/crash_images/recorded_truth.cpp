#include "tests/recovery/crash_images/recorded_truth.h"

#include "component/file_callbacks.h"
#include "journal/journal.h"
#include "mp4read/mp4_reader.h"
#include "platform/android_log.h"
#include "platform/host/host_control.h"
#include "tests/recovery/crash_images/disk_image.h"
#include "tests/support/component_test.h"
#include "tests/support/mux_callbacks.h"
#include "tests/support/programme_player.h"
#include "tests/support/wrapped_calls.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <unistd.h>

static constexpr char kFolder[] = "/mnt/sdcard/";
static constexpr char kCodecAvc[] = "avc1";

static void require(bool is_true, const std::string &what)
{
    if (!is_true) {
        throw std::runtime_error(what);
    }
}

namespace {

// The fixture outside a test of its own.
class Recorder : public ComponentTest {
  public:
    void TestBody() override
    {
    }
    using ComponentTest::make_recorder;
    using ComponentTest::SetUp;
    using ComponentTest::TearDown;
};

} // namespace

static size_t index_in(const disk_trace &trace, const std::string &name)
{
    const auto found = std::find(trace.names.begin(), trace.names.end(), name);
    return found == trace.names.end() ? kNoFile : static_cast<size_t>(found - trace.names.begin());
}

// returns: what the writes of the trace have made of a file, also of one that was removed
static Bytes written_to(const disk_trace &trace, size_t file)
{
    Bytes bytes;
    for (const disk_event &event : trace.events) {
        if (event.file == file && event.call == disk_call::write) {
            const size_t end = static_cast<size_t>(event.offset) + event.bytes.size();
            bytes.resize(std::max(bytes.size(), end));
            std::copy(event.bytes.begin(), event.bytes.end(), bytes.data() + event.offset);
        }
    }
    return bytes;
}

static std::vector<recorded_group> groups_of(const Bytes &journal)
{
    journal_settings_t settings;
    uint32_t head_bytes = 0;
    uint16_t version = 0;
    require(journal_read_head(journal.data(), journal.size(), &settings, &head_bytes, &version) ==
                kJournalRead,
            "the journal has no head");
    std::vector<recorded_group> groups;
    journal_group_reader_t reader;
    size_t at = head_bytes;
    size_t frames = 0;
    while (journal_open_group(&reader, journal.data() + at, journal.size() - at,
                              settings.session) == kJournalRead) {
        groups.push_back({static_cast<int64_t>(at), static_cast<int64_t>(at + reader.group_bytes),
                          frames, reader.frames});
        at += reader.group_bytes;
        frames += reader.frames;
    }
    require(at == journal.size(), "the journal does not end with a group");
    return groups;
}

// The files of the trace, and the groups of the journal.
static void describe_files(recorded_truth *truth, const std::string &media)
{
    static constexpr const char *kTableNames[RECOVERY_TABLE_COUNT] = {"v_stsz.tmp", "v_stco.tmp",
                                                                      "v_stts_dts.tmp"};
    const std::string journal = media + TDMBREC_JOURNAL_SUFFIX;
    truth->media = index_in(truth->trace, media);
    truth->journal = index_in(truth->trace, journal);
    for (size_t i = 0; i < RECOVERY_TABLE_COUNT; i++) {
        truth->tables[i] = index_in(truth->trace, std::string(kFolder) + kTableNames[i]);
    }
    if (truth->journal == kNoFile) { // an earlier recording may have left one
        truth->journal = truth->trace.names.size();
        truth->trace.names.push_back(journal);
    } else {
        truth->journal_bytes = written_to(truth->trace, truth->journal);
        truth->groups = groups_of(truth->journal_bytes);
    }
    truth->finished = written_to(truth->trace, truth->media);
    truth->media_end =
        truth->frames.back().offset + static_cast<int64_t>(truth->frames.back().bytes.size());
}

// The frames of a finished file in their order, with the times at which they were put.
static std::vector<recorded_frame> frames_of(const Bytes &file, const NotedTimes &times)
{
    const mp4_reader::movie movie = mp4_reader::read_movie(file);
    require(movie.faults.empty(), "a finished recording has faults");
    std::vector<recorded_frame> frames;
    for (const mp4_reader::track &track : movie.tracks) {
        const bool is_video = track.handler == "vide";
        for (const mp4_reader::sample &sample : track.samples) {
            const uint8_t *const from = file.data() + sample.offset;
            frames.push_back({.type = is_video ? MUX_TYPE_VIDEO : MUX_TYPE_AUDIO,
                              .flags = !is_video || sample.sync ? uint32_t{MUX_FRAME_KEY} : 0u,
                              .offset = static_cast<int64_t>(sample.offset),
                              .bytes = Bytes(from, from + sample.size)});
        }
    }
    std::sort(frames.begin(), frames.end(),
              [](const auto &a, const auto &b) { return a.offset < b.offset; });
    require(frames.size() == times.size(), "a finished recording lacks a frame");
    for (size_t i = 0; i < frames.size(); i++) {
        require(frames[i].type == times[i].first, "the frames are not in their order");
        frames[i].time_ms = times[i].second;
    }
    return frames;
}

// Those of a recording of the sample programme.
static recorded_settings settings_of_component(const Bytes &parameter_sets)
{
    recorded_settings settings = {.stream_flags = MUX_STREAM_VIDEO | MUX_STREAM_AUDIO,
                                  .options = MUX_OPTION_32BIT_OFFSET,
                                  .input = {.m_iYear = 2009,
                                            .m_iMonth = 9,
                                            .m_iDay = 5,
                                            .m_iWeekDay = 1,
                                            .m_iHour = 17,
                                            .m_iMinute = 5,
                                            .m_iSecond = 18,
                                            .m_iVideoWidth = TDMBREC_PICTURE_WIDTH,
                                            .m_iVideoHeight = TDMBREC_PICTURE_HEIGHT,
                                            .m_iVideoFrameRate = 30000,
                                            .m_iAudioSampleRate = kPcmSamplesPerSecond,
                                            .m_iAudioBitsPerSample = 16,
                                            .m_iAudioChannels = 2,
                                            .m_iAudioCodec = MUX_AUDIO_AAC},
                                  .video_configuration = parameter_sets,
                                  .audio_configuration = {0x11, 0x90}};
    std::memcpy(&settings.input.m_uiVideoFourCC, kCodecAvc, 4);
    return settings;
}

// Two picture parameter sets do not fit the decoder configuration: all sets stay in band.
static Bytes repeat_picture_parameter_set(const Bytes &access_unit)
{
    std::vector<Bytes> units = split_nal_units(access_unit);
    for (size_t i = 0; i < units.size(); i++) {
        if ((units[i][0] & 0x1F) == 8) {
            units.insert(units.begin() + static_cast<ptrdiff_t>(i), units[i]);
            break;
        }
    }
    return join_nal_units(units);
}

static Bytes parameter_sets_of(const Bytes &access_unit)
{
    std::vector<Bytes> units = split_nal_units(access_unit);
    std::erase_if(units, [](const Bytes &unit) {
        const int type = unit[0] & 0x1F;
        return type != 7 && type != 8;
    });
    return join_nal_units(units);
}

// Every group is synced before the next buffer, so that the trace is the same in every run.
static void wait_for_checkpoint(const record_options &options, const std::string &media)
{
    if (options.checkpoint_ms[0] != '\0') {
        require(wait_until_synced(media) && wait_until_synced(media + TDMBREC_JOURNAL_SUFFIX),
                "a checkpoint is not synced");
    }
}

static void send_pictures(IlClient &client, const record_options &options)
{
    const Programme &programme = sample_programme();
    send_time_base(client);
    size_t audio = 0;
    for (size_t i = 0; i < options.pictures; i++) {
        const size_t picture = (options.first_picture + i) % programme.access_units.size();
        const Bytes &unit = programme.access_units[picture];
        client.send(TDMBREC_PORT_VIDEO,
                    options.has_sets_in_band ? repeat_picture_parameter_set(unit) : unit,
                    video_time_us(i));
        wait_for_checkpoint(options, kRecording);
        for (; options.has_sound && audio_time_us(audio) < video_time_us(i + 1); audio++) {
            client.send(TDMBREC_PORT_AUDIO,
                        pcm_buffer(programme, audio % pcm_buffer_count(programme)),
                        audio_time_us(audio));
            wait_for_checkpoint(options, kRecording);
        }
    }
}

static void play_recording(const record_options &options, NotedTimes *times)
{
    Recorder recorder;
    recorder.SetUp();
    note_times(times, false);
    host_set_log_level(ANDROID_LOG_SILENT);
    host_set_property(TDMBREC_CHECKPOINT_PROPERTY, options.checkpoint_ms);
    {
        const auto client = Recorder::make_recorder(kRecording);
        send_pictures(*client, options);
        client->stop();
        require(client->wait_for_end() == TDMBREC_STOP_CLIENT, "the recording did not end");
        client->to_loaded();
    }
    note_times(nullptr, false);
    recorder.TearDown();
}

// Four fifths of the interval may pass until a group is written, the rest while it is synced.
static void check_intervals(const recorded_truth &truth, const char *checkpoint_ms)
{
    static constexpr uint32_t kFrameMs = 34; // of the picture that makes the checkpoint due
    const uint32_t most_ms = static_cast<uint32_t>(std::atoi(checkpoint_ms)) * 4 / 5 + kFrameMs;
    uint32_t last_ms = 0;
    size_t frames = 0;
    for (const recorded_group &group : truth.groups) {
        uint32_t end_ms = last_ms;
        for (frames = group.first_frame; frames < group.first_frame + group.frames; frames++) {
            end_ms = std::max(end_ms, truth.frames[frames].time_ms);
        }
        require(end_ms - last_ms <= most_ms, "a group is too long");
        last_ms = end_ms;
    }
    require(truth.groups.empty() || frames == truth.frames.size(), "a frame has no record");
}

// Media before its records, and the whole file on the storage before the journal is removed.
static void check_order(const recorded_truth &truth)
{
    int64_t media_end = 0;
    auto group = truth.groups.begin();
    for (size_t i = 0; i < truth.trace.events.size(); i++) {
        const disk_event &event = truth.trace.events[i];
        const int64_t end = event.offset + static_cast<int64_t>(event.bytes.size());
        if (event.file == truth.media && event.call == disk_call::write) {
            media_end = std::max(media_end, end);
        } else if (event.file == truth.journal && event.call == disk_call::write) {
            for (; group != truth.groups.end() && group->begin < end; group++) {
                const recorded_frame &last = truth.frames[group->first_frame + group->frames - 1];
                require(last.offset + static_cast<int64_t>(last.bytes.size()) <= media_end,
                        "a record is written before its frame");
            }
        } else if (event.file == truth.journal && event.call == disk_call::remove) {
            for (const size_t unsynced : unsynced_events(truth.trace, i)) {
                require(truth.trace.events[unsynced].file != truth.media,
                        "the journal is removed before the file is synced");
            }
        }
    }
}

recorded_truth record_with_component(const record_options &options)
{
    NotedTimes times;
    begin_disk_trace(kFolder);
    play_recording(options, &times);
    recorded_truth truth = {.name = options.name, .trace = end_disk_trace()};
    truth.settings = settings_of_component(
        options.has_sets_in_band
            ? Bytes{}
            : parameter_sets_of(sample_programme().access_units[options.first_picture]));
    truth.frames = frames_of(read_file(kRecording), times);
    describe_files(&truth, kRecording);
    require(truth.finished == read_file(kRecording), "the trace lacks a call");
    check_intervals(truth, options.checkpoint_ms);
    check_order(truth);
    require(finish_recording(truth.settings, truth.frames) == truth.finished,
            "the muxer alone makes another file of " + options.name);
    return truth;
}

static mp4_mux_putstream_t put_record_of(const recorded_frame &frame)
{
    return {.m_pbyData = frame.bytes.data(),
            .m_iDataSize = static_cast<int32_t>(frame.bytes.size()),
            .m_iType = frame.type,
            .m_uiTimeStamp = frame.time_ms,
            .m_uiTimeStamp2 = frame.time_ms,
            .m_uiFlags = frame.flags};
}

static void set_configurations(const recorded_settings &settings, mp4_mux_input_t *input)
{
    *input = settings.input;
    input->m_pbyVideoPrivate = settings.video_configuration.data();
    input->m_iVideoPrivateSize = static_cast<int32_t>(settings.video_configuration.size());
    input->m_pbyAudioPrivate = settings.audio_configuration.data();
    input->m_iAudioPrivateSize = static_cast<int32_t>(settings.audio_configuration.size());
}

Bytes finish_recording(const recorded_settings &settings, const std::vector<recorded_frame> &frames)
{
    static Bytes caches(0x240000);
    static char name[] = "reference.mp4";
    mux_test::reset_world();
    mp4_mux_init_t init = mux_test::make_callbacks(false);
    init.m_pOutput = name;
    init.m_uiStreamFlags = settings.stream_flags;
    init.m_uiOptions = settings.options;
    init.m_pCacheMem = caches.data();
    init.m_iCacheSize = TDMBREC_OUTPUT_CACHE_BYTES;
    init.m_iVideoCacheSize = TDMBREC_VIDEO_CACHE_BYTES;
    init.m_iAudioCacheSize = TDMBREC_AUDIO_CACHE_BYTES;
    mp4_mux_input_t input;
    set_configurations(settings, &input);
    void *handle = nullptr;
    require(QVR_MP4_MUX(MUX_OPEN, &handle, &init, &input) >= 0, "the muxer cannot open");
    for (const recorded_frame &frame : frames) {
        mp4_mux_putstream_t put = put_record_of(frame);
        require(QVR_MP4_MUX(MUX_PUTFRAME, &handle, &put, nullptr) >= 0, "a frame is refused");
    }
    require(QVR_MP4_MUX(MUX_CLOSE, &handle, nullptr, nullptr) >= 0, "the muxer cannot close");
    return mux_test::world.files.at(name).bytes;
}

namespace {

// A recording without the component.
struct small_recorder {
    void *handle;
    int journal;
    uint64_t session;
    int64_t media_end;
    journal_group_t group;
};

} // namespace

static void write_journal(int journal, const uint8_t *bytes, size_t count)
{
    require(write(journal, bytes, count) == static_cast<ssize_t>(count), "no journal");
}

static void begin_journal(const recorded_settings &settings, small_recorder *recorder)
{
    journal_settings_t head = {.session = recorder->session,
                               .stream_flags = settings.stream_flags,
                               .options = settings.options,
                               .input = settings.input};
    std::copy(settings.video_configuration.begin(), settings.video_configuration.end(),
              head.video_configuration);
    head.video_configuration_bytes = static_cast<uint32_t>(settings.video_configuration.size());
    std::copy(settings.audio_configuration.begin(), settings.audio_configuration.end(),
              head.audio_configuration);
    head.audio_configuration_bytes = static_cast<uint32_t>(settings.audio_configuration.size());
    std::strcpy(head.path, kRecording);
    uint8_t bytes[kJournalHeadBytes];
    write_journal(recorder->journal, bytes, journal_write_head(&head, bytes));
}

static void make_checkpoint(small_recorder *recorder, int media)
{
    require(QVR_MP4_MUX(MUX_FLUSH, &recorder->handle, nullptr, &recorder->media_end) >= 0,
            "the muxer cannot flush");
    if (recorder->group.frames > 0) {
        const uint32_t bytes = journal_end_group(&recorder->group);
        write_journal(recorder->journal, recorder->group.bytes, bytes);
    }
    journal_begin_group(&recorder->group, recorder->session,
                        static_cast<uint64_t>(recorder->media_end));
    require(fdatasync(media) == 0 && fdatasync(recorder->journal) == 0, "no sync");
}

static void fill_small_init(const recorded_settings &settings, mp4_mux_init_t *init)
{
    // The video tables are cut after a record of one kind, the others between two.
    static constexpr int32_t kCacheBytes[] = {700, 150, 90};
    static uint8_t caches[kCacheBytes[0] + kCacheBytes[1] + kCacheBytes[2]];
    static char name[sizeof(kRecording)];
    std::strcpy(name, kRecording);
    *init = {.m_pfnMalloc = std::malloc,
             .m_pfnFree = std::free,
             .m_pfnMemcpy = std::memcpy,
             .m_pfnMemset = std::memset,
             .m_pfnRealloc = std::realloc,
             .m_pfnFopen = QVR_FILE_fopen,
             .m_pfnFread = QVR_FILE_fread,
             .m_pfnFseek = QVR_FILE_fseek,
             .m_pfnFtell = QVR_FILE_ftell,
             .m_pfnFclose = QVR_FILE_fclose,
             .m_pfnFwrite = QVR_FILE_fwrite,
             .m_pfnRemove = std::remove,
             .m_pOutput = name,
             .m_uiStreamFlags = settings.stream_flags,
             .m_uiOptions = settings.options,
             .m_pCacheMem = caches,
             .m_iCacheSize = kCacheBytes[0],
             .m_iVideoCacheSize = kCacheBytes[1],
             .m_iAudioCacheSize = kCacheBytes[2],
             .m_pszTempDir = "/mnt/sdcard"};
}

recorded_truth record_with_tiny_caches(const std::string &name, const recorded_truth &frames_of,
                                       size_t frames, size_t group_frames)
{
    recorded_truth truth = {.name = name, .settings = frames_of.settings};
    truth.frames.assign(frames_of.frames.begin(),
                        frames_of.frames.begin() + static_cast<ptrdiff_t>(frames));
    std::filesystem::remove(kRecording);
    begin_disk_trace(kFolder);
    static small_recorder recorder;
    recorder = {.session = 0x1234567890ABCDEF};
    mp4_mux_init_t init;
    fill_small_init(truth.settings, &init);
    mp4_mux_input_t input;
    set_configurations(truth.settings, &input);
    host_set_log_level(ANDROID_LOG_SILENT);
    require(QVR_MP4_MUX(MUX_OPEN, &recorder.handle, &init, &input) >= 0, "the muxer cannot open");
    // The muxer opens the file with the first bytes that it writes.
    require(QVR_MP4_MUX(MUX_FLUSH, &recorder.handle, nullptr, nullptr) >= 0, "no file");
    const std::string journal = std::string(kRecording) + TDMBREC_JOURNAL_SUFFIX;
    recorder.journal = open(journal.data(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
    const int media = open(kRecording, O_RDONLY);
    begin_journal(truth.settings, &recorder);
    make_checkpoint(&recorder, media);
    for (const recorded_frame &frame : truth.frames) {
        mp4_mux_putstream_t put = put_record_of(frame);
        require(QVR_MP4_MUX(MUX_PUTFRAME, &recorder.handle, &put, nullptr) >= 0, "no frame");
        const journal_frame_t record = {.type = frame.type,
                                        .bytes = static_cast<uint32_t>(frame.bytes.size()),
                                        .time_ms = frame.time_ms,
                                        .flags = frame.flags};
        require(journal_add_frame(&recorder.group, &record, frame.bytes.data()), "a full group");
        if (recorder.group.frames >= group_frames) {
            make_checkpoint(&recorder, media);
        }
    }
    make_checkpoint(&recorder, media);
    require(QVR_MP4_MUX(MUX_CLOSE, &recorder.handle, nullptr, nullptr) >= 0, "no close");
    require(fdatasync(media) == 0 && unlink(journal.data()) == 0, "the journal is left");
    close(recorder.journal);
    close(media);
    truth.trace = end_disk_trace();
    describe_files(&truth, kRecording);
    require(finish_recording(truth.settings, truth.frames) == truth.finished,
            "tiny caches make another file");
    return truth;
}
