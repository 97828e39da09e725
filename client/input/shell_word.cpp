#include "client/input/shell_word.h"

#include <cstring>

// Neither the shell nor the end of a sentence changes these; a first "-" would begin an option.
static bool is_plain(char letter)
{
    static constexpr char kPlain[] = "%+,-./:=@_";
    return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
           (letter >= '0' && letter <= '9') || (static_cast<unsigned char>(letter) & 0x80u) != 0 ||
           std::strchr(kPlain, letter) != nullptr;
}

std::string shell_word(const std::string &path)
{
    std::string text = "'";
    bool is_word = !path.empty();
    for (const char letter : path) {
        is_word = is_word && is_plain(letter);
        text += letter == '\'' ? std::string("'\\''") : std::string(1, letter);
    }
    const std::string begin = path.starts_with('-') ? "./" : "";
    return is_word ? begin + path : (begin.empty() ? text : "'./" + text.substr(1)) + "'";
}
