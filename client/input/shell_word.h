// Words of a command line that a message proposes.
#ifndef CLIENT_INPUT_SHELL_WORD_H
#define CLIENT_INPUT_SHELL_WORD_H

#include <string>

// returns: the path as one word for a shell, quoted where that is needed
std::string shell_word(const std::string &path);

#endif // CLIENT_INPUT_SHELL_WORD_H
