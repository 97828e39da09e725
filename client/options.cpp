#include "client/options.h"

#include "client/failure.h"

#include <CLI/CLI.hpp>

#include <iostream>

static const char footer_text[] = R"(Exit status:
  0    the file is finished; also when Ctrl-C or SIGTERM ended the recording
  2    wrong command line
  3    an input cannot be read, or broke off (the file then holds what came before)
  4    an input holds something that cannot be recorded
  5    the output cannot be written
  6    the recorder's storage /mnt/sdcard cannot be provided
  7    the recorder component is missing or failed
  10   storage not usable            12   free space used up
  14   the file could not be begun   15   writing failed
  16   the file reached its size limit of 1,800,000,000 bytes
  17   the component was destroyed during the recording
  130  given up at the second Ctrl-C (143 SIGTERM, 129 SIGHUP); no file is left
After 12, 15 and 16 the file holds what came before, if it could be finished.)";

static void add_options(CLI::App &command, record_options &options, std::string &input)
{
    command.add_option("INPUT", input, "file with video and audio: MPEG-TS, MP4 or Matroska")
        ->type_name("FILE");
    command
        .add_option("--video", options.video,
                    "take the video from this file: raw H.264 or one of the above")
        ->type_name("FILE");
    command
        .add_option("--audio", options.audio,
                    "take the audio from this file: WAV or one of the above")
        ->type_name("FILE");
    command.add_option("-o,--output", options.output, "the MP4 file to make")
        ->type_name("FILE")
        ->required();
    command.add_flag("-f,--force", options.force, "replace an existing file when finished");
    command
        .add_option("--frame-rate", options.frame_rate,
                    "pictures per second of raw H.264, as 25 or 30000/1001 (default: as the "
                    "stream says, else 30)")
        ->type_name("RATE");
    command.add_flag("--realtime", options.realtime, "record no faster than the programme runs");
    command.add_flag("--card", options.card, "record to the removable card's root");
    command.add_flag("--json", options.json, "print the summary as JSON");
    command.add_flag("-v,--verbose", options.verbosity,
                     "show the component's log; given twice, all of it");
}

static int report_mistake(const std::string &what)
{
    std::cerr << "tdmbrec: " << what << "\nRun \"tdmbrec record --help\" for the options.\n";
    return static_cast<int>(exit_code::usage);
}

parsed_command_line options_parse(int argc, const char *const *argv)
{
    record_options options;
    std::string input;
    CLI::App app("Records an H.264 programme with sound to an MP4 file, through the recorder's "
                 "OpenMAX IL component.",
                 "tdmbrec");
    app.set_version_flag("--version", "tdmbrec " TDMBREC_VERSION);
    app.require_subcommand(1);
    CLI::App *const command = app.add_subcommand("record", "Record a programme to an MP4 file");
    command->footer(footer_text);
    add_options(*command, options, input);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &asked) { // help or version
        return {std::nullopt, app.exit(asked)};
    } catch (const CLI::ParseError &mistake) {
        return {std::nullopt, report_mistake(mistake.what())};
    }
    if (!input.empty() && !options.video.empty() && !options.audio.empty()) {
        return {std::nullopt, report_mistake("INPUT is not needed beside --video and --audio")};
    }
    for (std::string *const file : {&options.video, &options.audio}) {
        if (file->empty()) {
            *file = input;
        }
        if (file->empty()) {
            return {std::nullopt,
                    report_mistake("name one INPUT, or the files --video and --audio")};
        }
    }
    return {options, 0};
}
