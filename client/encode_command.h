// tdmbrec encode: encodes a file's sound without the recorder.
#ifndef CLIENT_ENCODE_COMMAND_H
#define CLIENT_ENCODE_COMMAND_H

#include "client/options.h"

// Encodes, and reports on standard output.
// returns: the exit code
// throws: `failure`
int encode_run(const encode_options &options);

#endif // CLIENT_ENCODE_COMMAND_H
