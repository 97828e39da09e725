// A folder beside the output for what is under way; it and all in it go with the record.
#ifndef CLIENT_WORK_FOLDER_H
#define CLIENT_WORK_FOLDER_H

#include "client/locked_folder.h"
#include "client/output_place.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>

struct work_folder {
    std::unique_ptr<output_place> place;
    locked_folder folder;

    work_folder() = default;
    work_folder(const work_folder &) = delete;
    work_folder &operator=(const work_folder &) = delete;
    ~work_folder();
};

// Makes the folder beside an output that may be written. throws `failure`.
std::unique_ptr<work_folder> work_folder_make(const std::string &output, bool force);

// Removes the folder that is in use, and lets no other be made: for the end of the process.
// thread: any.
void work_folder_give_up(void);

// The path of a file in the folder, for as long as the folder is there.
std::string work_folder_path(const work_folder &folder, const std::string &name);

// Gives a finished file of the folder its place. throws `failure`.
void work_folder_publish(const work_folder &folder, const std::string &name);

// A file in the folder that is being written.
struct work_file {
    std::FILE *file;
    uint64_t bytes = 0; // written so far

    work_file(const work_folder &folder, const std::string &name); // throws `failure`
    work_file(const work_file &) = delete;
    work_file &operator=(const work_file &) = delete;
    ~work_file();
};

// throws `failure`.
void work_file_write(work_file &out, std::span<const uint8_t> bytes);
void work_file_finish(work_file &out);

#endif // CLIENT_WORK_FOLDER_H
