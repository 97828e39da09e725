// The tdmbrec command.
#include "client/encode_command.h"
#include "client/failure.h"
#include "client/info_command.h"
#include "client/interruption.h"
#include "client/mux_command.h"
#include "client/options.h"
#include "client/record_command.h"
#include "client/recover_command.h"
#include "client/terminal.h"
#include "client/work_folder.h"

#include <exception>
#include <fcntl.h>
#include <unistd.h>

static int run(int status)
{
    return status;
}

static int run(const record_options &options)
{
    return record_run(options);
}

static void handle_signals(void)
{
    interruption_block();
    interruption_listen([] {
        work_folder_abort();
        terminal_say("tdmbrec: aborted");
    });
}

static int run(const encode_options &options)
{
    handle_signals();
    return encode_run(options);
}

static int run(const mux_options &options)
{
    handle_signals();
    return mux_run(options);
}

static int run(const info_options &options)
{
    return info_run(options);
}

static int run(const recover_options &options)
{
    handle_signals();
    return recover_run(options);
}

// A file opened later must not get the number of a closed standard stream, or messages would go
// into it. The streams opened here are read-only: writing to them fails, as to the closed ones.
static void hold_standard_streams(void)
{
    int descriptor = 0;
    do {
        descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor > STDERR_FILENO) {
        close(descriptor);
    }
}

int main(int argc, char **argv)
{
    hold_standard_streams();
    const command_line line = options_parse(argc, argv);
    exit_code code = exit_code::component;
    try {
        return std::visit([](const auto &options) { return run(options); }, line);
    } catch (const failure &what) {
        terminal_say(std::string("tdmbrec: ") + what.what());
        code = what.code;
    } catch (const std::exception &what) {
        terminal_say(std::string("tdmbrec: ") + what.what());
    }
    return static_cast<int>(code);
}
