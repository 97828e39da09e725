// tdmbrec info: what an MP4 file holds, and what is wrong with it.
#ifndef CLIENT_INFO_COMMAND_H
#define CLIENT_INFO_COMMAND_H

#include "client/options.h"

// Reports on standard output or to a page and returns the exit code. throws `failure`.
int info_run(const info_options &options);

#endif // CLIENT_INFO_COMMAND_H
