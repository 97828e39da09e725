#include "client/options.h"

#include "client/failure.h"
#include "client/start_time.h"
#include "client/time_span.h"
#include "client/version.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>

static constexpr char kRecordFooter[] = R"(Exit status:
  0    the file is finished; also when Ctrl-C or SIGTERM ended the recording
  2    wrong command line
  3    an input cannot be read, or broke off (the file then holds what was read)
  4    an input holds something that cannot be recorded
  5    the output cannot be written
  6    the recorder's storage /mnt/sdcard cannot be provided
  7    the recorder component is missing or failed
  8    the recording is kept, but not as the output; a message says where, and what to do
  10   storage not usable            12   free space used up
  14   the file could not be opened  15   writing failed
  16   the file has passed its size limit of 1,800,000,000 bytes
  17   the component was destroyed during the recording
  130  aborted by the second Ctrl-C (143 SIGTERM, 129 SIGHUP); a message says where the
       recording is kept
After 3, 4, 7, 12, 15 and 16 the output holds everything recorded until then, if anything was.

A live input, which is no file, is recorded as it arrives. The summary says whether the recording
is complete or damaged, which the exit status does not; --json lists what is missing.

During the recording the file is in the folder OUTPUT.recording beside the output, which is
locked. Nothing that was recorded is ever deleted: a file that cannot become the output stays in
that folder, also when the command is killed, and the next "record" or "info" of the output reports
it. A signal that is ignored from the start, as with nohup, stays ignored. TDMBREC_PATIENCE sets how
many seconds the command waits for a component that does not answer (default: 120).)";

static constexpr char kEncodeFooter[] =
    R"(The stream consists of ADTS frames. With --raw it consists of the bare access units after one
ADIF header, which describes them to a decoder. The last frame is filled up with silence, and one
frame of silence follows it to push the encoder's overlap out.

Exit status:
  0    the stream is finished
  2    wrong command line
  3    the input cannot be read, is damaged, or broke off (the stream then holds what could be read)
  4    the encoder does not support the input's sampling rate or channels
  5    the output cannot be written
  7    the encoder failed
  130  stopped by Ctrl-C (143 SIGTERM, 129 SIGHUP); no stream is left)";

static constexpr char kMuxFooter[] =
    R"(The file begins sound and picture together and holds the sound without gaps. Sound before the
first picture is left out; sound that begins later moves to the front, and gaps in it are closed. A
warning says by how many milliseconds.

Exit status:
  0    the file is finished
  2    wrong command line, or a cache of 0 bytes
  3    an input cannot be read
  4    an input holds something that cannot be put into the file
  5    the output cannot be written
  7    the muxer made an invalid file
  130  stopped by Ctrl-C (143 SIGTERM, 129 SIGHUP); no file is left)";

static constexpr char kInfoFooter[] =
    R"(Exit status:
  0    nothing is wrong with the file
  1    something is wrong with the file; the report says what
  2    wrong command line
  3    the file cannot be read
  5    the report or the page cannot be written

A valid file that misses parts of its programme has the state "damaged", but nothing is wrong with
it. A note reports a recording to the file that is under way, or was left unfinished.)";

static constexpr char kRecoverFooter[] =
    R"(BROKEN is the file of an interrupted recording; the folder NAME.recording that "record" left; or a
folder that holds such folders, files with a journal (NAME.journal), or recordings without a movie
box. It is only read, and never deleted. Without --output the file gets a name beside BROKEN that
does not exist yet.

With the journal, the result has the same bytes as a normal end after its last complete frame.
Without it, the times follow from the order of the frames, and the decoder configuration comes from
the pictures, from --like, from --parameter-sets, from another recording in the same folder, or
from --guess, whichever is the first that a decoder accepts with the first 30 pictures.

Exit status:
  0    everything that is complete came back
  2    wrong command line
  3    BROKEN cannot be read, is not a recording, holds no complete picture, or is being recorded
  4    no decoder configuration was found; or --in-place on a file with holes
  5    the output cannot be written
  7    the muxer failed
  9    nothing to recover: the file is finished, or nothing is in the folder
  21   recovered, with holes: damaged parts in the middle are left out
  22   recovered, with a guessed decoder configuration
  23   both
  130  stopped by Ctrl-C (143 SIGTERM, 129 SIGHUP); no file is left
Of several recordings, the first failure decides.)";

static constexpr int kPcmRateMin = 1000, kPcmRateMax = 384000; // Hz

static constexpr int kMemoryBytesMax = 1 << 28;

static void add_output(CLI::App &command, std::string &output, bool &force, const char *what)
{
    command.add_option("-o,--output", output, what)->type_name("FILE")->required();
    command.add_flag("-f,--force", force, "replace an existing file when finished");
}

static void add_frame_rate(CLI::App &command, std::optional<std::string> &frame_rate)
{
    command
        .add_option("--frame-rate", frame_rate,
                    "pictures per second of raw H.264, as 25 or 30000/1001\n"
                    "(default: as the stream says, else 30)")
        ->type_name("RATE");
}

// Adds an option that takes a length of time.
static void add_length(CLI::App &command, const char *name, int64_t &length_us, const char *what)
{
    command
        .add_option_function<std::string>(
            name,
            [name, &length_us](const std::string &text) {
                const std::optional<int64_t> length = time_span_us(text);
                if (!length) {
                    throw CLI::ValidationError(std::string(name) +
                                               " takes a time as 90, 1:30 or 1h30m, not \"" + text +
                                               "\"");
                }
                length_us = *length;
            },
            what)
        ->type_name("TIME");
}

static void add_live(CLI::App &command, record_options &options)
{
    command
        .add_option("--pcm", options.pcm_rate,
                    "the input of --audio is bare PCM of this rate: 16-bit little-endian stereo")
        ->type_name("HZ")
        ->check(CLI::Range(kPcmRateMin, kPcmRateMax));
    command
        .add_option_function<std::string>(
            "--start-at",
            [&options](const std::string &text) {
                const auto now = std::chrono::system_clock::now();
                const std::string mistake = start_time_read(text, now, options.start_at.emplace());
                if (!mistake.empty()) {
                    throw CLI::ValidationError(mistake);
                }
            },
            "wait until this local time: HH:MM or HH:MM:SS, today or tomorrow, or with YYYY-MM-DD "
            "before it; what a pipe sends until then is left out")
        ->type_name("TIME");
}

static void add_record(CLI::App &app, record_options &options, std::string &input)
{
    CLI::App &command = *app.add_subcommand("record", "Record a programme to an MP4 file");
    command.footer(kRecordFooter);
    command
        .add_option("INPUT", input,
                    "video and audio: a file (MPEG-TS, MP4 or Matroska), a pipe (\"-\" is standard "
                    "input), or what FFmpeg opens (udp://, rtp://, tcp://, http:// ...)")
        ->type_name("INPUT");
    command
        .add_option("--video", options.video,
                    "take the video from this input: raw H.264 or one of the above")
        ->type_name("INPUT");
    command
        .add_option("--audio", options.audio,
                    "take the audio from this input: WAV, ADTS or one of the above")
        ->type_name("INPUT");
    add_live(command, options);
    add_output(command, options.output, options.force, "the MP4 file to make");
    add_frame_rate(command, options.frame_rate);
    command.add_flag("--realtime", options.realtime,
                     "record a file no faster than the programme runs");
    add_length(command, "--duration", options.duration_us, "end after this much of the programme");
    command.add_flag_function(
        "--split,!--no-split", [&options](int64_t count) { options.split = count > 0; },
        "continue in NAME-002.mp4 and so on, without a gap, before the recorder's limit\n"
        "of 1.8 GB and where the parameter sets of the video change (default for live\n"
        "inputs); in the output's name, %Y, %m, %d, %H, %M and %S then stand for the time\n"
        "at which a file begins");
    add_length(command, "--split-every", options.split_every_us,
               "also continue in another file each time this much is recorded");
    command
        .add_option("--split-size", options.split_size_mb,
                    "also continue in another file when one has this many millions of bytes")
        ->type_name("MB")
        ->check(CLI::Range(kSplitSizeMbMin, kSplitSizeMbMax));
    add_length(
        command, "--reconnect", options.reconnect_us,
        "when a live input ends, wait this long for it to come back, and continue in another\n"
        "file; not for standard input");
    command.add_flag("!--no-audio", options.with_audio, "record the pictures without sound");
    command.add_flag("--card", options.card, "record to the removable card's root");
    command
        .add_option("--checkpoint", options.checkpoint_s,
                    "most of the programme that a power cut may cost;\n"
                    "0: no checkpoints; the recorder's cache of 1 MiB and the system's are lost")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, kCheckpointMaxS))
        ->capture_default_str();
    command.add_flag("--json", options.json, "print the summary as JSON");
    command.add_flag("-v,--verbose", options.verbosity,
                     "show the component's log; given twice, all of it");
}

static void add_encode(CLI::App &app, encode_options &options)
{
    CLI::App &command = *app.add_subcommand("encode", "Encode a file's sound to AAC-LC");
    command.footer(kEncodeFooter);
    command.add_option("INPUT", options.input, "WAV file of one of the encoder's sampling rates")
        ->type_name("FILE")
        ->required();
    add_output(command, options.output, options.force, "the AAC file to make");
    command
        .add_option("--bitrate", options.bit_rate,
                    "bits per second of all channels together, a multiple of 1000, at least 16000; "
                    "the encoder uses at most 6 per sample")
        ->type_name("RATE")
        ->capture_default_str();
    command.add_flag("--raw", options.raw, "bare access units in place of ADTS frames");
    command.add_flag("--tns", options.tns, "switch temporal noise shaping on");
    command.add_flag("--pns", options.pns, "switch noise substitution on");
    command.add_flag("--mpeg2", options.mpeg2,
                     "announce MPEG-2 AAC in the ADTS frames, which have no noise substitution");
}

// in: text: "recorder", "none", or the sizes for output, video and audio in bytes
// returns: the mistake, empty if there is none
static std::string read_cache(const std::string &text, mux_memory &memory)
{
    char rest = 0;
    if (text == "none") {
        memory.is_own = true;
    } else if (text != "recorder" && std::sscanf(text.c_str(), "%d,%d,%d%c", &memory.output,
                                                 &memory.video, &memory.audio, &rest) != 3) {
        return "--cache takes \"recorder\", \"none\" or three sizes in bytes";
    }
    const auto fits = [](int bytes) { return bytes >= 0 && bytes <= kMemoryBytesMax; };
    return fits(memory.output) && fits(memory.video) && fits(memory.audio)
               ? ""
               : "--cache takes sizes up to " + std::to_string(kMemoryBytesMax) + " bytes";
}

static void add_mux(CLI::App &app, mux_options &options)
{
    CLI::App &command = *app.add_subcommand("mux", "Put coded video and sound into an MP4 file");
    command.footer(kMuxFooter);
    command
        .add_option("--video", options.video,
                    "H.264: a raw stream, MPEG-TS, MP4 or Matroska, without reordered pictures")
        ->type_name("FILE");
    command.add_option("--audio", options.audio, "AAC: ADTS, MPEG-TS, MP4 or Matroska")
        ->type_name("FILE");
    add_output(command, options.output, options.force, "the MP4 file to make");
    add_frame_rate(command, options.frame_rate);
    command
        .add_option_function<std::string>(
            "--cache",
            [&options](const std::string &text) {
                const std::string mistake = read_cache(text, options.memory);
                if (!mistake.empty()) {
                    throw CLI::ValidationError(mistake);
                }
            },
            "memory that the muxer writes through: \"recorder\" for what the recorder lends it, "
            "\"none\" for its own, or OUTPUT,VIDEO,AUDIO bytes (default: recorder)")
        ->type_name("SIZES");
    command
        .add_option("--close-memory", options.memory.close,
                    "bytes lent for the close; below the output's cache and below 1024000 bytes "
                    "the muxer copies its tables in other ways")
        ->type_name("BYTES")
        ->check(CLI::Range(0, kMemoryBytesMax))
        ->capture_default_str();
    command.add_flag("--64-bit", options.wide_offsets, "chunk offsets of 64 bits");
    command.add_flag("--append", options.append, "append the tables to the file as whole files");
}

static void add_info(CLI::App &app, info_options &options)
{
    CLI::App &command =
        *app.add_subcommand("info", "Report what an MP4 file holds and what is wrong with it");
    command.footer(kInfoFooter);
    command.add_option("INPUT", options.input, "MP4 file")->type_name("FILE")->required();
    CLI::Option *const json = command.add_flag("--json", options.json, "print the report as JSON");
    command
        .add_option_function<std::string>(
            "--html", [&options](const std::string &page) { options.page = page; },
            "write the report as a page for a browser to this file; without a name, to standard "
            "output")
        ->type_name("FILE")
        ->expected(0, 1)
        ->excludes(json);
    command.add_flag("-f,--force", options.force, "replace an existing page");
}

static void add_recover(CLI::App &app, recover_options &options)
{
    CLI::App &command = *app.add_subcommand("recover", "Bring back an interrupted recording");
    command.footer(kRecoverFooter);
    command.add_option("BROKEN", options.broken, "file or folder of the recording")
        ->type_name("PATH")
        ->required();
    CLI::Option *const output =
        command.add_option("-o,--output", options.output, "the MP4 file to make")
            ->type_name("FILE");
    CLI::Option *const force =
        command.add_flag("-f,--force", options.force, "replace an existing output when finished");
    command
        .add_option("--like", options.like,
                    "take the decoder configuration from this recording of the same channel")
        ->type_name("MP4");
    command
        .add_option("--parameter-sets", options.parameter_sets,
                    "take it from this file: H.264 with start codes, or MP4")
        ->type_name("FILE");
    command.add_flag("--guess", options.guess,
                     "search for a configuration with which the pictures decode;\n"
                     "size, brightness and colours may be wrong");
    command
        .add_option("--rate", options.sample_rate,
                    "sampling rate of the sound, without a journal\n"
                    "(default: the one at which it can be read)")
        ->type_name("HZ")
        ->check(CLI::IsMember({8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000}));
    command
        .add_option("--frame-rate", options.frame_rate,
                    "pictures per second, without a journal, as 25 or 30000/1001\n"
                    "(default: the rate that fits best)")
        ->type_name("RATE");
    command
        .add_flag("--in-place", options.in_place,
                  "finish BROKEN itself, for a full storage;\n"
                  "when this is interrupted, it can be recovered as before")
        ->excludes(output)
        ->excludes(force);
    command.add_flag("--json", options.json, "print the outcome as JSON");
}

static std::string mistake_text(const CLI::App &app, const CLI::ParseError &mistake, int argc,
                                const char *const *argv)
{
    if (argc < 2 || argv[1][0] == '-' || !app.get_subcommands().empty()) {
        return mistake.what();
    }
    std::string names;
    for (const CLI::App *const command : app.get_subcommands(nullptr)) {
        names += (names.empty() ? "" : ", ") + command->get_name();
    }
    return "there is no command \"" + std::string(argv[1]) + "\"; the commands are " + names;
}

static int report_mistake(const std::string &command, const std::string &what)
{
    std::cerr << "tdmbrec: " << what << "\nRun \"tdmbrec " << command
              << "--help\" for the options.\n";
    return static_cast<int>(exit_code::usage);
}

// Sets the files that the recording takes its two streams from.
static command_line choose_inputs(record_options options, const std::string &input)
{
    if (!input.empty() && !options.video.empty() && !options.audio.empty()) {
        return report_mistake("record ", "INPUT is not needed with --video and --audio");
    }
    if (options.reconnect_us > 0 &&
        (options.video == "-" || options.audio == "-" || input == "-")) {
        return report_mistake("record ", "--reconnect needs an input that can be opened again");
    }
    if (options.split_every_us > 0 || options.split_size_mb > 0) {
        options.split = true;
    }
    if (options.pcm_rate > 0 && options.audio.empty()) {
        return report_mistake("record ", "--pcm needs --audio");
    }
    for (std::string *const file : {&options.video, &options.audio}) {
        if (file->empty()) {
            *file = input;
        }
        if (file->empty() && (options.with_audio || file == &options.video)) {
            return report_mistake("record ", "give one INPUT, or both --video and --audio");
        }
    }
    return options;
}

command_line options_parse(int argc, const char *const *argv)
{
    record_options record;
    encode_options encode;
    mux_options mux;
    info_options info;
    recover_options recover;
    std::string input;
    CLI::App app("Records an H.264 programme with sound to an MP4 file, through the recorder's "
                 "OpenMAX IL component; the other commands use its parts alone.",
                 "tdmbrec");
    app.set_version_flag("--version", version_text);
    app.require_subcommand(1);
    add_record(app, record, input);
    add_encode(app, encode);
    add_mux(app, mux);
    add_info(app, info);
    add_recover(app, recover);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &asked) { // help or version
        return app.exit(asked);
    } catch (const CLI::ParseError &mistake) {
        const auto chosen = app.get_subcommands();
        return report_mistake(chosen.empty() ? "" : chosen.front()->get_name() + " ",
                              mistake_text(app, mistake, argc, argv));
    }
    if (app.got_subcommand("encode")) {
        return encode;
    }
    if (app.got_subcommand("mux")) {
        return mux.video.empty() && mux.audio.empty()
                   ? report_mistake("mux ", "give --video, --audio or both")
                   : command_line(mux);
    }
    if (app.got_subcommand("info")) {
        return info;
    }
    if (app.got_subcommand("recover")) {
        return recover;
    }
    return choose_inputs(record, input);
}
