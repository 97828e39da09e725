// Recovers a recording from a file and the journal beside it.
#ifndef TESTS_SUPPORT_RECOVER_FILE_H
#define TESTS_SUPPORT_RECOVER_FILE_H

#include "recovery/recovery.h"

#include <string>

struct recovered_file {
    int32_t result = 0; // RECOVERY_…
    recovery_report_t report = {};
};

// in: media: its journal is used if it exists
recovered_file recover_file(const std::string &media, const std::string &output);

#endif // TESTS_SUPPORT_RECOVER_FILE_H
