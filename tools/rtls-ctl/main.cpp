// rtls-ctl - one-shot operator commands for gateways, with exit statuses.
#include "command_line.h"
#include "common/program.h"

int main(int argc, char** argv)
{
    return tools::run_main(argc, argv, ctl::run_command_line);
}
