#include "client/recover_search.h"

#include "client/failure.h"
#include "client/unfinished_recording.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/file.h>
#include <unistd.h>

namespace fs = std::filesystem;

// returns: whether the name ends as that of a folder that "record" made
// out: output_name: the rest of it
static bool is_left_folder(const std::string &name, std::string &output_name)
{
    const size_t at = name.rfind(kRecordingSuffix);
    if (at == std::string::npos || at == 0) {
        return false;
    }
    const std::string number = name.substr(at + sizeof kRecordingSuffix - 1);
    output_name = name.substr(0, at);
    return number.empty() || (number.size() > 1 && number[0] == '-' &&
                              number.find_first_not_of("0123456789", 1) == std::string::npos);
}

// returns: the folder's own name and place, also for "." and for a path that ends in a slash
static fs::path full_path(const fs::path &path)
{
    std::error_code error;
    const fs::path full = fs::canonical(path, error);
    return error ? path : full;
}

std::string recover_output_of(const broken_recording &broken)
{
    const fs::path directory = broken.output_folder;
    const std::string &name = broken.output_name, &suffix = broken.output_suffix;
    const fs::path stem = fs::path(name).stem();
    const std::string extension =
        fs::path(name).has_extension() ? fs::path(name).extension().string() : ".mp4";
    fs::path path = directory / (stem.string() + suffix + extension);
    std::error_code missing;
    for (int number = 2; fs::exists(fs::symlink_status(path, missing)); number++) {
        const int times = suffix.empty() ? number - 1 : number;
        std::string end = "-recovered";
        if (times > 1) {
            end.append("-").append(std::to_string(times));
        }
        path = directory / (stem.string() + end + extension);
    }
    return path.string();
}

static std::string existing(const fs::path &path)
{
    std::error_code missing;
    return fs::is_regular_file(path, missing) ? path.string() : "";
}

// The file's name may be a link; its journal and the tables are beside it or beside its target. The
// tables of a recording that was kept in /mnt/sdcard itself begin with its name.
static void find_companions(broken_recording &found)
{
    static constexpr const char *kTables[RECOVERY_TABLE_COUNT] = {"v_stsz.tmp", "v_stco.tmp",
                                                                  "v_stts_dts.tmp"};
    for (const fs::path &media : {fs::path(found.path), full_path(found.path)}) {
        if (found.journal.empty()) {
            found.journal = existing(media.string() + TDMBREC_JOURNAL_SUFFIX);
        }
        for (size_t i = 0; i < found.tables.size(); i++) {
            for (const fs::path &table :
                 {fs::path(media.string() + "." + kTables[i]), media.parent_path() / kTables[i]}) {
                if (found.tables[i].empty()) {
                    found.tables[i] = existing(table);
                }
            }
        }
    }
}

// returns: the folder that "record" made for this file; empty when it did not
static fs::path left_folder_of(const fs::path &file, std::string &output_name)
{
    const auto has_name = [](const fs::path &path) {
        return path.has_filename() && path.filename() != "." && path.filename() != "..";
    };
    fs::path folder = file.parent_path();
    if (folder.filename() == kCardName && has_name(folder.parent_path())) {
        folder = folder.parent_path();
    } else if (!has_name(folder)) { // the user may be inside it
        folder = full_path(folder.empty() ? "." : folder);
        folder = folder.filename() == kCardName ? folder.parent_path() : folder;
    }
    std::error_code error;
    folder = fs::is_symlink(folder, error) ? full_path(folder) : folder;
    return is_left_folder(folder.filename(), output_name) ? folder : fs::path();
}

// Other commands may use the folder of a file that "record" did not make: its lock is not kept.
static void lock_folder(broken_recording &found, const fs::path &folder, int lock, bool to_keep)
{
    const int directory = open(folder.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) {
        return;
    }
    std::unique_ptr<found_folder> place = std::make_unique<found_folder>();
    const bool is_there = locked_folder_find(*place, directory, folder.filename(), lock);
    close(directory);
    found.is_in_use |= is_there && place->state == folder_state::in_use;
    if (to_keep) {
        found.locks.push_back(std::move(place));
    }
}

// A link may lead from one folder of "record" into another, or from anywhere into one.
static void lock_folders(broken_recording &found, bool to_change)
{
    fs::path locked;
    for (const fs::path &file : {fs::path(found.path), full_path(found.path)}) {
        std::string output_name;
        const fs::path left = left_folder_of(file, output_name);
        const fs::path beside = file.has_parent_path() ? file.parent_path() : ".";
        const fs::path folder = full_path(left.empty() ? beside : left);
        if (folder != locked) { // a second lock would wait for the first one
            const bool is_left = !left.empty();
            lock_folder(found, folder, is_left && to_change ? LOCK_EX : LOCK_SH, is_left);
        }
        locked = folder;
    }
}

static broken_recording look_at_file(const fs::path &file, bool to_change)
{
    broken_recording found = {.path = file.string()};
    std::string output_name;
    fs::path folder = left_folder_of(file, output_name);
    if (folder.empty()) {
        folder = left_folder_of(full_path(file), output_name);
    }
    const bool is_left = !folder.empty();
    const fs::path beside = is_left ? folder.parent_path() : file.parent_path();
    found.left = folder.string();
    found.neighbours = beside.empty() ? "." : beside.string();
    found.output_folder = beside.string();
    found.output_name = is_left ? output_name : file.filename().string();
    found.output_suffix = is_left ? "" : "-recovered";
    lock_folders(found, to_change);
    find_companions(found);
    return found;
}

// returns: the recording in a folder that "record" left; empty when there is none
static fs::path file_in(const fs::path &folder)
{
    std::error_code error;
    for (const fs::path &name :
         {fs::path(kRecordingName), fs::path(kCardName) / kRecordingName, fs::path(kCopyName)}) {
        // What cannot be looked at may be a recording: opening it gives the reason.
        if (fs::exists(fs::symlink_status(folder / name, error)) ||
            error == std::errc::permission_denied) {
            return folder / name;
        }
    }
    return {};
}

static void look_into_folder(const fs::path &folder, bool to_change,
                             std::vector<broken_recording> &list)
{
    std::error_code error;
    std::vector<fs::path> names;
    for (fs::directory_iterator at(folder, error); !error && at != fs::directory_iterator();
         at.increment(error)) {
        names.push_back(at->path());
    }
    if (error) {
        throw failure(exit_code::input, folder.string() + ": " + error.message());
    }
    std::sort(names.begin(), names.end());
    std::set<fs::path> seen; // a link beside its target is the same recording
    for (const fs::path &name : names) {
        std::string output_name;
        const bool is_folder = fs::is_directory(fs::symlink_status(name, error));
        fs::path file;
        if (is_folder && is_left_folder(name.filename(), output_name)) {
            file = file_in(name);
        } else if (!is_folder && fs::is_regular_file(name, error) &&
                   (!existing(name.string() + TDMBREC_JOURNAL_SUFFIX).empty() ||
                    is_broken_recording(name))) {
            file = name;
        }
        if (!file.empty() && seen.insert(full_path(file)).second) {
            list.push_back(
                look_at_file(folder == "." ? file.lexically_relative(".") : file, to_change));
        }
    }
}

std::vector<broken_recording> recover_search(const std::string &path, bool to_change)
{
    std::vector<broken_recording> list;
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (status.type() == fs::file_type::not_found || status.type() == fs::file_type::none) {
        throw failure(exit_code::input, path + ": " + error.message());
    }
    if (!fs::is_directory(status)) {
        list.push_back(look_at_file(path, to_change));
        return list;
    }
    fs::path folder = fs::path(path).lexically_normal();
    folder = folder.has_filename() ? folder : folder.parent_path();
    std::string output_name;
    if (is_left_folder(full_path(folder).filename(), output_name)) {
        const fs::path file = file_in(folder);
        if (!file.empty()) {
            list.push_back(look_at_file(file, to_change));
        }
        return list;
    }
    look_into_folder(folder, to_change, list);
    return list;
}
