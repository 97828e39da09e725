// An MP4 file written by the muxer without the recorder.
#ifndef CLIENT_MUX_FILE_H
#define CLIENT_MUX_FILE_H

#include "client/options.h"
#include "mp4mux/mp4_mux.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

struct mux_file {
    void *handle = nullptr;
    std::vector<uint8_t> cache; // lent to the muxer until the handle is closed
    int64_t estimate = 0;       // the muxer's, of the finished file's bytes

    mux_file() = default;
    mux_file(const mux_file &) = delete;
    mux_file &operator=(const mux_file &) = delete;
    ~mux_file();
};

// Sets the memory and file callbacks, with files of the C library.
void mux_file_set_callbacks(mp4_mux_init_t &init);

// returns: the system's reason for the first write that failed; empty before it
std::string mux_file_write_error(void);

// Opens the muxer and begins the file.
// in: path, scratch: of the file, and of the folder for the muxer's tables with a slash at its end
// throws: `failure`
void mux_file_open(mux_file &out, const mux_options &options, std::string path,
                   const std::string &scratch, mp4_mux_input_t &tracks);

// Appends a frame.
// in: type: MUX_TYPE_…
// throws: `failure`
void mux_file_put(mux_file &out, int32_t type, std::span<const uint8_t> bytes, uint32_t time_ms,
                  bool is_key);

// Finishes the file.
// throws: `failure`
void mux_file_close(mux_file &out, const mux_options &options);

#endif // CLIENT_MUX_FILE_H
