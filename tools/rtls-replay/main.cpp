// rtls-replay - plays the bridges of a recording against a gateway.
#include "rtls-replay/command_line.h"
#include "tap/program.h"

int main(int argc, char** argv)
{
    return tap::run_main(argc, argv, replay::run_command_line);
}
