// Memory and file callbacks for the muxer that count their calls, fail on demand and keep all files
// in memory. They share one state, the world, which each test resets.
#ifndef TESTS_SUPPORT_MUX_CALLBACKS_H
#define TESTS_SUPPORT_MUX_CALLBACKS_H

#include "mp4mux/mux_context.h"
#include "tests/support/programme.h"

#include <map>
#include <set>

namespace mux_test {

// Both the 32-bit and the 64-bit function of a name count as the same kind.
enum class call { malloc, realloc, fopen, fread, fseek, ftell, fclose, fwrite, append, remove };

struct failure {
    call kind = call::malloc;
    uint32_t at = 0; // number of the call that fails, from 1; 0 for none
    bool from_then_on = false;
    bool partial = false; // a write or read transfers half of its bytes
};

// A file is its own handle.
struct memory_file {
    Bytes bytes; // without those in the hole
    uint64_t size = 0, position = 0;
    bool open = true;
};

struct world_state {
    std::map<std::string, memory_file> files;
    std::set<void *> memory;
    std::map<call, uint32_t> calls;
    failure fail, fail_too;
    std::vector<std::string> opened, removed;
    uint64_t hole_begin = UINT64_MAX, hole_end = UINT64_MAX; // positions whose bytes no file keeps
    std::string misuse;                                      // the first forbidden call
};
extern world_state world;

// Clears the world and frees the blocks that the last test leaked.
void reset_world();

// returns: the first misuse or leak, a file other than "out.mp4" included; empty for none
std::string leftovers();

mp4_mux_init_t make_callbacks(bool with_64bit);
mp4_mux_t make_context(bool with_64bit); // only the callbacks are set
int32_t append_whole_file(void *destination, void *source, int32_t reserved);

// An open handle on a new file.
void *open_file(const std::string &name);

} // namespace mux_test

#endif // TESTS_SUPPORT_MUX_CALLBACKS_H
