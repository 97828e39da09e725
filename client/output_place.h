// The output file: checked before any work starts, replaced atomically at the end.
#ifndef CLIENT_OUTPUT_PLACE_H
#define CLIENT_OUTPUT_PLACE_H

#include <initializer_list>
#include <memory>
#include <string>

// The two parts of an output's path, or of its target if the output is a link.
struct output_path {
    std::string directory;
    std::string name;
};

output_path output_path_of(const std::string &output);

// returns: the path of another name in the output's directory
std::string output_path_text(const output_path &path, const std::string &name);

struct output_place {
    int directory = -1;
    std::string directory_path;
    std::string name;   // in the directory
    bool force = false; // an existing file may be replaced

    output_place() = default;
    output_place(const output_place &) = delete;
    output_place &operator=(const output_place &) = delete;
    ~output_place();
};

// Checks that the output may be written, and changes nothing.
// returns: the place
// throws: `failure`
std::unique_ptr<output_place> output_place_open(const std::string &output, bool force);

// Refuses an output that is one of the inputs.
// throws: `failure`
void output_place_check_inputs(const std::string &output,
                               std::initializer_list<std::string> inputs);

// Moves a file of the same file system to the output's place.
// in: from, from_name: the file's directory and its name there
// returns: false with errno when it cannot be moved
[[nodiscard]] bool output_place_take(const output_place &place, int from,
                                     const std::string &from_name);

#endif // CLIENT_OUTPUT_PLACE_H
