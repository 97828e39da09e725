// One run of the command: from the input files to the finished recording.
#ifndef CLIENT_RECORD_COMMAND_H
#define CLIENT_RECORD_COMMAND_H

#include "client/options.h"

// Records, reports on standard error and standard output, and returns the exit code. Call before
// any thread exists.
int record(const record_options &options);

#endif // CLIENT_RECORD_COMMAND_H
