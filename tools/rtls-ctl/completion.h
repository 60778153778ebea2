// completion - what a shell needs to complete this program's command line, out of the command line's description.
//
// Ownership  Values.
// Threads    Any; pure.
#pragma once

#include <string>
#include <vector>

namespace ctl {

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

std::string bash_completion(const described_command& program);
std::string zsh_completion(const described_command& program);

} // namespace ctl
