// rtls-record - writes what a gateway's tap publishes to recordings.
#include "rtls-record/command_line.h"
#include "tap/program.h"

int main(int argc, char** argv)
{
    return tap::run_main(argc, argv, record::run_command_line);
}
