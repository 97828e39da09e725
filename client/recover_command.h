// Brings interrupted recordings back.
#ifndef CLIENT_RECOVER_COMMAND_H
#define CLIENT_RECOVER_COMMAND_H

#include "client/options.h"

// Recovers what the options name, and reports each recording.
// returns: the exit code
// throws: `failure` when nothing can be looked at
int recover_run(const recover_options &options);

#endif // CLIENT_RECOVER_COMMAND_H
