// rtls-replay - plays the bridges of a recording against a gateway.
#include "common/program.h"
#include "rtls-replay/command_line.h"

int main(int argc, char** argv)
{
    return tools::run_main(argc, argv, replay::run_command_line);
}
