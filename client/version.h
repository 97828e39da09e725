// The version of the command.
#ifndef CLIENT_VERSION_H
#define CLIENT_VERSION_H

#include <string>

// returns: the version of the command, and on the next line that of the muxer in it
std::string version_text(void);

#endif // CLIENT_VERSION_H
