// rtls-record - writes what a gateway's tap publishes to recordings.
#include "common/program.h"
#include "rtls-record/command_line.h"

int main(int argc, char** argv)
{
    return tools::run_main(argc, argv, record::run_command_line);
}
