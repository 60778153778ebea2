// description - a command line's options and subcommands, as they describe themselves.
//
// Ownership  Values.
// Threads    Any; pure.
// Failures   Of memory: std::bad_alloc.
#pragma once

#include <string>
#include <vector>

namespace CLI { // NOLINT(readability-identifier-naming): the library is called so
class App;
}

namespace tools {

struct described_option {
    std::vector<std::string> names;   // "-g", "--gateway"; none: by its place
    std::string meaning;              // in a line
    std::vector<std::string> choices; // what its value may be; none: anything
    bool has_value = false;
    bool is_file = false; // the value names one
};

struct described_command {
    std::string name;
    std::string meaning;
    std::vector<described_option> options; // those of the whole program may stand behind each command
    std::vector<described_command> commands;
};

described_command described(const CLI::App& app);

} // namespace tools
