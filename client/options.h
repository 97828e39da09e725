// The command line.
#ifndef CLIENT_OPTIONS_H
#define CLIENT_OPTIONS_H

#include <optional>
#include <string>

struct record_options {
    std::string video; // input files; the same one when it holds both
    std::string audio;
    std::string output;
    std::optional<std::string> frame_rate; // as given: a number or a fraction
    bool force = false;
    bool card = false;
    bool realtime = false;
    bool json = false;
    int verbosity = 0;
};

struct parsed_command_line {
    std::optional<record_options> record; // nothing: all is said, exit with the status
    int status = 0;
};

// Reads the command line; help, version and mistakes are answered here.
parsed_command_line options_parse(int argc, const char *const *argv);

#endif
