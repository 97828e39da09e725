// The names of the files of one recording, of which each continues the one before it.
#ifndef CLIENT_OUTPUT_SERIES_H
#define CLIENT_OUTPUT_SERIES_H

#include <set>
#include <string>

struct output_series {
    std::string pattern; // the first name
    bool has_times;      // its conversions, as %H, stand for the time at which a file begins
    bool force;          // existing files may be replaced
    std::set<std::string> names; // given so far
};

// returns: the name of the next file: the first, then with "-002", "-003", ... before its suffix,
//          which a name with the time needs only where it is given already. From the second on,
//          names of files that exist are left out unless they may be replaced.
std::string output_series_next(output_series &series);

#endif // CLIENT_OUTPUT_SERIES_H
