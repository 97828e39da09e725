// tdmbrec info: reports the contents and the faults of an MP4 file.
#ifndef CLIENT_INFO_COMMAND_H
#define CLIENT_INFO_COMMAND_H

#include "client/options.h"

// Reports on standard output or to a page.
// returns: the exit code
// throws: `failure`
int info_run(const info_options &options);

#endif // CLIENT_INFO_COMMAND_H
