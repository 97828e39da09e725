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

// Which memory the muxer writes through.
struct mux_memory {
    bool own = false;                                        // the muxer's own
    int output = 0x100000, video = 0xC0000, audio = 0x80000; // bytes, as the recorder lends them
    int close = 0x300000;                                    // bytes lent for the close
};

struct mux_options {
    std::string video; // input files; empty: no such track
    std::string audio;
    std::string output;
    std::optional<std::string> frame_rate; // as given: a number or a fraction
    mux_memory memory;
    bool wide_offsets = false; // of 64 bits
    bool append = false;       // the tables are appended as files
    bool force = false;
};

struct info_options {
    std::string input;
    std::optional<std::string> page; // where the HTML page goes; empty: to standard output
    bool json = false;
    bool force = false;
};

// What to do; a number when all is said, and the program is to exit with it.
using command_line = std::variant<int, record_options, encode_options, mux_options, info_options>;

// Reads the command line; help, version and mistakes are answered here.
command_line options_parse(int argc, const char *const *argv);

#endif // CLIENT_OPTIONS_H
