// rtls-tail - shows what passes a gateway, from its tap or a recording.
#include "rtls-tail/command_line.h"
#include "tap/program.h"

int main(int argc, char** argv)
{
    return tap::run_main(argc, argv, tail::run_command_line);
}
