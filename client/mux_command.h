// tdmbrec mux: writes coded video and sound to a file without the recorder.
#ifndef CLIENT_MUX_COMMAND_H
#define CLIENT_MUX_COMMAND_H

#include "client/options.h"

// Writes the file, and reports on standard output.
// returns: the exit code
// throws: `failure`
int mux_run(const mux_options &options);

#endif // CLIENT_MUX_COMMAND_H
