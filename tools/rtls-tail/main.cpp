// rtls-tail - shows what passes a gateway, from its tap, a recording or a capture.
#include "common/program.h"
#include "rtls-tail/command_line.h"

int main(int argc, char** argv)
{
    return tools::run_main(argc, argv, tail::run_command_line);
}
