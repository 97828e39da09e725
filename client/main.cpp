// The tdmbrec command.
#include "client/options.h"
#include "client/record.h"

int main(int argc, char **argv)
{
    const parsed_command_line parsed = options_parse(argc, argv);
    return parsed.record ? record(*parsed.record) : parsed.status;
}
