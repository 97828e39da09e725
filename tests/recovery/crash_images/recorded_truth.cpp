#include "tests/recovery/crash_images/recorded_truth.h"

#include "journal/journal.h"
#include "platform/android_log.h"
#include "platform/host/host_control.h"
#include "tests/support/component_test.h"
#include "tests/support/programme_player.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

static constexpr char kFolder[] = "/mnt/sdcard/";

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

// Every group is synced, after its media, before the next buffer, so that the trace is the same in
// every run.
static void wait_for_checkpoint(const record_options &options)
{
    static const std::string journal = std::string(kRecording) + TDMBREC_JOURNAL_SUFFIX;
    if (options.checkpoint_ms[0] != '\0') {
        require(wait_until_synced(journal), "a checkpoint is not synced");
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
        wait_for_checkpoint(options);
        for (; options.has_audio && audio_time_us(audio) < video_time_us(i + 1); audio++) {
            client.send(TDMBREC_PORT_AUDIO,
                        pcm_buffer(programme, audio % pcm_buffer_count(programme)),
                        audio_time_us(audio));
            wait_for_checkpoint(options);
        }
    }
}

static void play_recording(const record_options &options, traced_mux *mux)
{
    Recorder recorder;
    recorder.SetUp();
    trace_mux(mux, options.has_tiny_caches);
    host_set_log_level(ANDROID_LOG_SILENT);
    host_set_property(TDMBREC_CHECKPOINT_PROPERTY, options.checkpoint_ms);
    {
        const auto client = Recorder::make_recorder(kRecording);
        send_pictures(*client, options);
        client->stop();
        require(client->wait_for_end() == TDMBREC_STOP_CLIENT, "the recording did not end");
        client->to_loaded();
    }
    trace_mux(nullptr, false);
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

// Media before its records.
static void check_order(const recorded_truth &truth)
{
    int64_t media_end = 0;
    auto group = truth.groups.begin();
    for (const disk_event &event : truth.trace.events) {
        const int64_t end = event.offset + static_cast<int64_t>(event.bytes.size());
        if (event.file == truth.media && event.call == disk_call::write) {
            media_end = std::max(media_end, end);
        } else if (event.file == truth.journal && event.call == disk_call::write) {
            for (; group != truth.groups.end() && group->begin < end; group++) {
                const muxed_frame &last = truth.frames[group->first_frame + group->frames - 1];
                require(last.offset + static_cast<int64_t>(last.bytes.size()) <= media_end,
                        "a record is written before its frame");
            }
        }
    }
}

recorded_truth record_with_component(const record_options &options)
{
    traced_mux mux;
    begin_disk_trace(kFolder);
    play_recording(options, &mux);
    recorded_truth truth = {.name = options.name,
                            .trace = end_disk_trace(),
                            .settings = mux.settings,
                            .frames = mux.frames};
    describe_files(&truth, kRecording);
    require(truth.finished == read_file(kRecording), "the trace lacks a call");
    check_intervals(truth, options.checkpoint_ms);
    check_order(truth);
    require(normal_stop(truth.settings, truth.frames) == truth.finished,
            "the muxer alone makes another file of " + options.name);
    return truth;
}
