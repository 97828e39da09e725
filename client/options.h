// The command line.
#ifndef CLIENT_OPTIONS_H
#define CLIENT_OPTIONS_H

#include <optional>
#include <string>
#include <variant>

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

struct encode_options {
    std::string input;
    std::string output;
    int bit_rate = 128000; // bit/s, of all channels
    bool raw = false;
    bool tns = false;
    bool pns = false;
    bool mpeg2 = false;
    bool force = false;
};

struct info_options {
    std::string input;
    std::optional<std::string> page; // where the HTML page goes; empty: to standard output
    bool json = false;
    bool force = false;
};

// What to do; a number when all is said, and the program is to exit with it.
using command_line = std::variant<int, record_options, encode_options, info_options>;

// Reads the command line; help, version and mistakes are answered here.
command_line options_parse(int argc, const char *const *argv);

#endif
