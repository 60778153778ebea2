// rtls-ctl - one-shot operator commands for gateways, with exit statuses.
#include "command_line.h"

#include <csignal>
#include <cstdio>
#include <exception>

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN); // whoever reads may leave; sockets' ends are told by their calls
    try {
        return ctl::run_command_line({argv + 1, argv + argc});
    } catch (const std::exception& error) {
        std::fprintf(stderr, "rtls-ctl: %s\n", error.what());
        return 1;
    }
}
