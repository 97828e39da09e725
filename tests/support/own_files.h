// Paths of a test program's files, relative to the program: no path of the build machine is
// compiled in.
#ifndef TESTS_SUPPORT_OWN_FILES_H
#define TESTS_SUPPORT_OWN_FILES_H

#include <filesystem>
#include <string>
#include <sys/auxv.h>

// The program is in bin/. Initialised before main(), while the working directory is the shell's.
inline const std::filesystem::path kBuildFolder =
    std::filesystem::absolute(reinterpret_cast<const char *>(getauxval(AT_EXECFN)))
        .lexically_normal()
        .parent_path()
        .parent_path();

inline std::string built_file(const std::string &path)
{
    return (kBuildFolder / path).string();
}

inline std::string source_file(const std::string &path)
{
    return (kBuildFolder / TDMBREC_SOURCE_FROM_BUILD / path).string();
}

#endif // TESTS_SUPPORT_OWN_FILES_H
