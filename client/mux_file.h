// An MP4 file that the muxer itself writes, without the recorder around it.
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
    std::vector<uint8_t> cache; // lent to the muxer, as long as the handle is there
    int64_t estimate = 0;       // of the finished file's size, by the muxer

    mux_file() = default;
    mux_file(const mux_file &) = delete;
    mux_file &operator=(const mux_file &) = delete;
    ~mux_file();
};

// Begins the file. in: where it and its scratch files go; what the tracks are. throws `failure`.
void mux_file_open(mux_file &out, const mux_options &options, std::string path,
                   const std::string &scratch, mp4_mux_input_t &tracks);

// Appends a frame. in: MUX_TYPE_…; the time in ms. throws `failure`.
void mux_file_put(mux_file &out, int32_t type, std::span<const uint8_t> bytes, uint32_t time_ms,
                  bool is_key);

// Finishes the file. throws `failure`.
void mux_file_close(mux_file &out, const mux_options &options);

#endif // CLIENT_MUX_FILE_H
