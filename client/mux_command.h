// tdmbrec mux: coded video and sound through the muxer alone.
#ifndef CLIENT_MUX_COMMAND_H
#define CLIENT_MUX_COMMAND_H

#include "client/options.h"

// Makes the file, reports on standard output and returns the exit code. throws `failure`.
int mux_run(const mux_options &options);

#endif // CLIENT_MUX_COMMAND_H
