// completion - what a shell needs to complete a program that has options and files, but no subcommands.
//
// Ownership  Values.
// Threads    Any; pure.
#pragma once

#include <string>
#include <vector>

namespace tap {

struct described_option {
    std::vector<std::string> names;   // "-n", "--count"
    std::string meaning;              // in a line
    std::vector<std::string> choices; // what its value may be; none: anything
    bool has_value = false;
    bool is_file = false; // the value names one
};

struct described_program {
    std::string name;
    std::vector<described_option> options;
};

std::string bash_completion(const described_program& program);
std::string zsh_completion(const described_program& program);

} // namespace tap
