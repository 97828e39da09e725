#include "client/output_place.h"

#include "client/failure.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

output_place::~output_place()
{
    if (directory >= 0) {
        close(directory);
    }
}

output_path output_path_of(const std::string &output)
{
    std::error_code missing;
    std::filesystem::path path = output;
    if (std::filesystem::is_symlink(path, missing)) {
        path = std::filesystem::canonical(path, missing);
    }
    if (missing) {
        path = output;
    }
    return {path.has_parent_path() ? path.parent_path().string() : ".", path.filename()};
}

std::string output_path_text(const output_path &path, const std::string &name)
{
    return path.directory == "." ? name : (std::filesystem::path(path.directory) / name).string();
}

std::unique_ptr<output_place> output_place_open(const std::string &output, bool force)
{
    const output_path path = output_path_of(output);
    std::unique_ptr<output_place> place = std::make_unique<output_place>();
    place->name = path.name;
    place->directory_path = path.directory;
    place->force = force;
    if (place->name.empty() || place->name == "." || place->name == "..") {
        throw failure(exit_code::output, output + ": is not the name of a file");
    }
    place->directory = open(path.directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (place->directory < 0 || faccessat(place->directory, ".", W_OK | X_OK, AT_EACCESS) != 0) {
        fail_with_errno(exit_code::output, path.directory);
    }
    struct stat status = {};
    if (fstatat(place->directory, place->name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) {
            throw failure(exit_code::output, output + ": exists and is not a regular file");
        }
        if (!force) {
            throw failure(exit_code::output, output + ": exists already (--force replaces it)");
        }
    } else if (errno != ENOENT) {
        fail_with_errno(exit_code::output, output);
    }
    return place;
}

void output_place_check_inputs(const std::string &output, std::initializer_list<std::string> inputs)
{
    for (const std::string &input : inputs) {
        std::error_code ignored;
        if (std::filesystem::equivalent(input, output, ignored)) {
            throw failure(exit_code::output, output + ": is an input as well");
        }
    }
}

bool output_place_take(const output_place &place, int from, const std::string &from_name)
{
    const unsigned flags = place.force ? 0 : RENAME_NOREPLACE;
    const char *const name = place.name.c_str();
    if (renameat2(from, from_name.c_str(), place.directory, name, flags) == 0) {
        return true;
    }
    return errno == EINVAL && // the file system does not know the flag
           faccessat(place.directory, name, F_OK, AT_SYMLINK_NOFOLLOW) != 0 &&
           renameat(from, from_name.c_str(), place.directory, name) == 0;
}
