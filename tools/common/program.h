// program - the frame of a program: what it is started with, its release, and what nobody has caught.
//
// Ownership  None: the command line's options write to what their owner gave, which outlives parse().
// Threads    The main thread.
// Failures   Told on the error output, behind the program's name.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace CLI { // NOLINT(readability-identifier-naming): the library is called so
class App;
}

namespace tools {

// "8.6.3"
extern const char* const program_version;

// Without the program's name.
using arguments = std::vector<std::string>;

// The last thing that main does: `run` with what it was started with. Whoever reads our output, or speaks with us, may
// leave: SIGPIPE is ignored. `failed`: the status of what is thrown through `run`.
int run_main(int argc, char** argv, int (*run)(const arguments& given), int failed = 1);

// Writes the options. A status when the program ends with it: 0 behind --help and --version, `usage` (the library's own
// statuses when it is 0) behind a wrong command line, which is told. Throws output_error when there is no room for it.
std::optional<int> parse(CLI::App& app, const arguments& given, int usage);

// A line on the error output.
void note(const std::string& program, const std::string& text);

} // namespace tools
