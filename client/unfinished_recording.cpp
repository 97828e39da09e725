#include "client/unfinished_recording.h"

#include "client/input/shell_word.h"
#include "client/output_place.h"
#include "client/report/figures.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

// unsigned int(32) size; unsigned int(32) type; for a size of 1, unsigned int(64) largesize;
static constexpr uint64_t kHeaderBytes = 8;
static constexpr uint64_t kLargeHeaderBytes = 16;

struct box_header {
    std::array<uint8_t, kLargeHeaderBytes> bytes = {};
    uint64_t header_bytes = kHeaderBytes;
    uint64_t box_bytes = 0;
};

static uint64_t read_number(const uint8_t *bytes, unsigned width)
{
    uint64_t number = 0;
    for (unsigned i = 0; i < width; i++) {
        number = number << 8 | bytes[i];
    }
    return number;
}

// returns: 1; 0 at the end of the file; -1 when it cannot be read
static int read_header(int file, uint64_t at, box_header &header)
{
    const ssize_t got =
        pread(file, header.bytes.data(), header.bytes.size(), static_cast<off_t>(at));
    if (got < static_cast<ssize_t>(kHeaderBytes)) {
        return got < 0 ? -1 : 0;
    }
    header.box_bytes = read_number(header.bytes.data(), 4);
    header.header_bytes = kHeaderBytes;
    if (header.box_bytes == 1 && got == static_cast<ssize_t>(kLargeHeaderBytes)) {
        header.box_bytes = read_number(&header.bytes[kHeaderBytes], 8);
        header.header_bytes = kLargeHeaderBytes;
    }
    return 1;
}

// The component writes less than this before the media data.
static constexpr uint64_t kHeadBytesMax = 64;

static recording_state judge(int file, uint64_t size)
{
    // A longer file without a media data box is damaged, not empty.
    recording_state state =
        size > kHeadBytesMax ? recording_state::unfinished : recording_state::empty;
    box_header header;
    int got = 0;
    for (uint64_t at = 0; at < size && (got = read_header(file, at, header)) > 0;
         at += header.box_bytes) {
        const uint64_t rest = size - at;
        const bool is_media = std::memcmp(&header.bytes[4], "mdat", 4) == 0;
        const bool is_known = header.box_bytes >= header.header_bytes;
        if ((is_media || !is_known) && rest > header.header_bytes) {
            state = recording_state::unfinished;
        }
        if (!is_known || header.box_bytes > rest) { // no size yet, or cut off
            return state;
        }
        if (std::memcmp(&header.bytes[4], "moov", 4) == 0) {
            return recording_state::finished;
        }
    }
    return got < 0 ? recording_state::unfinished : state;
}

unfinished_recording unfinished_recording_look(int directory, const std::string &name)
{
    unfinished_recording recording;
    const int file = openat(directory, name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0) {
        const bool is_missing = errno == ENOENT || errno == ENOTDIR;
        struct stat link = {};
        recording.file =
            is_missing && fstatat(directory, name.c_str(), &link, AT_SYMLINK_NOFOLLOW) != 0
                ? recording_state::empty
                : recording_state::unreachable;
        return recording;
    }
    struct stat status = {};
    if (fstat(file, &status) != 0) {
        recording.file = recording_state::unfinished;
    } else {
        recording.bytes = static_cast<uint64_t>(status.st_size);
        recording.file = judge(file, recording.bytes);
    }
    close(file);
    return recording;
}

bool is_broken_recording(const std::string &path)
{
    static constexpr std::string_view kHead("\0\0\0\x14"
                                            "ftyp3g2a",
                                            12);
    if (unfinished_recording_look(AT_FDCWD, path).file != recording_state::unfinished) {
        return false;
    }
    std::array<char, kHead.size()> head = {};
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    const ssize_t got = file >= 0 ? read(file, head.data(), head.size()) : -1;
    if (file >= 0) {
        close(file);
    }
    return got == static_cast<ssize_t>(head.size()) &&
           std::memcmp(head.data(), kHead.data(), head.size()) == 0;
}

// returns: the first file with media data; without one, the place is the folder's
static unfinished_recording look_into(int folder, const std::string &folder_path)
{
    for (const std::string &name :
         {std::string(kRecordingName), std::string(kCardName) + "/" + kRecordingName,
          std::string(kCopyName)}) {
        unfinished_recording recording = unfinished_recording_look(folder, name);
        if (recording.file != recording_state::empty) {
            recording.place = folder_path + "/" + name;
            recording.source = folder_path;
            return recording;
        }
    }
    return {.place = folder_path, .source = folder_path};
}

static void remove_files(int folder)
{
    for (const char *const name : kMuxTableNames) {
        unlinkat(folder, name, 0);
    }
    for (const char *const name : {kRecordingName, kJournalName, kCopyName}) {
        unlinkat(folder, name, 0);
    }
}

void unfinished_recording_clear(int directory, const locked_folder &folder)
{
    if (look_into(folder.descriptor, "").file != recording_state::empty) {
        return;
    }
    const int card = openat(folder.descriptor, kCardName, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (card >= 0) {
        remove_files(card);
        close(card);
        unlinkat(folder.descriptor, kCardName, AT_REMOVEDIR);
    }
    remove_files(folder.descriptor);
    locked_folder_remove(directory, folder);
}

// Calls the function for each folder of the output.
template <typename Visit>
static void visit_folders(const output_path &path, int lock, Visit visit)
{
    const int directory = open(path.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) {
        return;
    }
    for (const std::string &name : locked_folder_names(directory, path.name, kRecordingSuffix)) {
        found_folder found;
        if (locked_folder_find(found, directory, name, lock)) {
            visit(directory, found);
        }
    }
    close(directory);
}

std::vector<unfinished_recording> unfinished_recordings_of(const std::string &output)
{
    std::vector<unfinished_recording> recordings;
    const output_path path = output_path_of(output);
    visit_folders(path, LOCK_SH, [&](int, const found_folder &found) {
        unfinished_recording recording =
            look_into(found.folder.descriptor, output_path_text(path, found.folder.name));
        recording.folder = found.state;
        if (recording.file != recording_state::empty || found.state == folder_state::in_use) {
            recordings.push_back(std::move(recording));
        }
    });
    return recordings;
}

void unfinished_recordings_clear(const std::string &output)
{
    visit_folders(output_path_of(output), LOCK_EX, [](int directory, const found_folder &found) {
        if (found.state == folder_state::left) {
            unfinished_recording_clear(directory, found.folder);
        }
    });
}

std::string unfinished_recording_text(const std::string &output,
                                      const unfinished_recording &recording)
{
    if (recording.folder == folder_state::in_use) {
        return output + ": is being recorded now, as " + recording.place;
    }
    const bool is_finished = recording.file == recording_state::finished;
    const bool is_there =
        unfinished_recording_look(AT_FDCWD, output).file == recording_state::finished;
    return output +
           (is_finished ? ": an earlier recording did not get this name; "
                        : ": an earlier recording was not finished; ") +
           kept_text(recording) +
           (is_there && !is_finished
                ? "; " + output + " is complete, and may have been recovered from it"
                : "");
}

std::string kept_text(const unfinished_recording &recording)
{
    if (recording.file == recording_state::unreachable) {
        return "the recorded data is kept as " + recording.place +
               ", which cannot be opened: it belongs to another user, or its storage is missing";
    }
    const std::string size = " (" + size_text(recording.bytes) + ") is kept as " + recording.place;
    return recording.file == recording_state::finished
               ? "the finished file" + size + ": move it to where it is wanted"
               : "the recorded data" + size +
                     ", which players cannot open as it is; to get it back: tdmbrec recover " +
                     shell_word(recording.source);
}
