#include "common/program.h"

#include "common/output.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <csignal>
#include <cstdio>
#include <exception>

namespace tools {

const char* const program_version = RTLS_VERSION;

// Its name alone, wherever it stands.
static std::string name_of(const char* path)
{
    const std::string text{path};
    return text.substr(text.rfind('/') + 1);
}

int run_main(int argc, char** argv, int (*run)(const arguments& given), int failed)
{
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return run({argv + 1, argv + argc});
    } catch (const std::exception& error) {
        note(name_of(argv[0]), error.what());
        return failed;
    }
}

std::optional<int> parse(CLI::App& app, const arguments& given, int usage)
{
    try {
        arguments from_the_end{given.rbegin(), given.rend()};
        app.parse(from_the_end);
    } catch (const CLI::ParseError& why) {
        const int status = app.exit(why);
        flush_output();
        return status == 0 || usage == 0 ? status : usage;
    }
    return std::nullopt;
}

void note(const std::string& program, const std::string& text)
{
    std::fprintf(stderr, "%s: %s\n", program.c_str(), text.c_str());
}

} // namespace tools
