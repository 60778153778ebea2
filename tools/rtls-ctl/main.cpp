// rtls-ctl - one-shot operator commands for gateways, with exit statuses.
#include "common/program.h"
#include "rtls-ctl/command_line.h"

int main(int argc, char** argv)
{
    return tools::run_main(argc, argv, ctl::run_command_line);
}
