// tdmbrec record: from the input files to the finished recording.
#ifndef CLIENT_RECORD_COMMAND_H
#define CLIENT_RECORD_COMMAND_H

#include "client/options.h"

// Records, and reports on standard error and standard output.
// returns: the exit code
// thread: the only one
int record_run(const record_options &options);

#endif // CLIENT_RECORD_COMMAND_H
