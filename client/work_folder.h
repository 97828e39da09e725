// A folder beside the output for the file that is being made. The record removes it with its files.
#ifndef CLIENT_WORK_FOLDER_H
#define CLIENT_WORK_FOLDER_H

#include "client/locked_folder.h"
#include "client/output_place.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>

// The names of a command's file in the folder.
inline constexpr char kWorkStream[] = "stream.aac";
inline constexpr char kWorkMovie[] = "movie.mp4";
inline constexpr char kWorkPage[] = "page.html";
inline constexpr char kWorkNotes[] = "walk.tmp"; // made by the recovery without a journal

struct work_folder {
    std::unique_ptr<output_place> place;
    locked_folder folder;

    work_folder() = default;
    work_folder(const work_folder &) = delete;
    work_folder &operator=(const work_folder &) = delete;
    ~work_folder();
};

// Makes the folder, if the output may be written.
// returns: the folder
// throws: `failure`
std::unique_ptr<work_folder> work_folder_make(const std::string &output, bool force);

// Removes the folder in use before the process ends. No other can be made after it.
// thread: any
void work_folder_abort(void);

// returns: the path of a file in the folder, valid as long as the record
std::string work_folder_path(const work_folder &folder, const std::string &name);

// Brings a finished file of the folder to the storage.
// throws: `failure`
void work_folder_sync(const work_folder &folder, const std::string &name);

// Moves a finished file of the folder to the output's place.
// throws: `failure`
void work_folder_publish(const work_folder &folder, const std::string &name);

// A file in the folder, open for writing.
struct work_file {
    std::FILE *file;
    uint64_t bytes = 0; // written so far

    work_file(const work_folder &folder, const std::string &name); // throws: `failure`
    work_file(const work_file &) = delete;
    work_file &operator=(const work_file &) = delete;
    ~work_file();
};

// throws: `failure`
void work_file_write(work_file &out, std::span<const uint8_t> bytes);

// Flushes and closes the file.
// throws: `failure`
void work_file_finish(work_file &out);

#endif // CLIENT_WORK_FOLDER_H
