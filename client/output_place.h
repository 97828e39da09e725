// Where a finished file goes: looked at before anything is made, and taken as a whole at the end.
#ifndef CLIENT_OUTPUT_PLACE_H
#define CLIENT_OUTPUT_PLACE_H

#include <initializer_list>
#include <memory>
#include <string>

// The two parts of an output's path; of a link's target where there is one.
struct output_path {
    std::string directory;
    std::string name;
};

output_path output_path_of(const std::string &output);

// The path of something else in the output's directory.
std::string output_path_text(const output_path &path, const std::string &name);

struct output_place {
    int directory = -1;
    std::string directory_path;
    std::string name;   // of the finished file there
    bool force = false; // an existing file may be replaced

    output_place() = default;
    output_place(const output_place &) = delete;
    output_place &operator=(const output_place &) = delete;
    ~output_place();
};

// Checks that the file may be written, without touching anything. throws `failure`.
std::unique_ptr<output_place> output_place_open(const std::string &output, bool force);

// Refuses an output that is one of the inputs. throws `failure`.
void output_place_check_inputs(const std::string &output,
                               std::initializer_list<std::string> inputs);

// Moves a file of the same file system, named in the directory `from`, to the place.
// returns false with errno when it cannot.
[[nodiscard]] bool output_place_take(const output_place &place, int from,
                                     const std::string &from_name);

#endif // CLIENT_OUTPUT_PLACE_H
