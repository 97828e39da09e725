// tdmbrec encode: a file's sound through the encoder alone.
#ifndef CLIENT_ENCODE_COMMAND_H
#define CLIENT_ENCODE_COMMAND_H

#include "client/options.h"

// Encodes, reports on standard output and returns the exit code. throws `failure`.
int encode_run(const encode_options &options);

#endif // CLIENT_ENCODE_COMMAND_H
