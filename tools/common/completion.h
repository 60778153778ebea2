// completion - what a shell loads to complete a program's command line, out of its description.
//
// Ownership  Values.
// Threads    Any; pure.
// Failures   Of memory: std::bad_alloc.
#pragma once

#include "common/description.h"

#include <string>
#include <string_view>

namespace tools {

// `shell`: "bash", or else zsh. `asked_by`: the word in front of the shell's name by which the program prints this.
// Files are offered as the values of options that name one, and in each place that takes one.
std::string completion(const described_command& program, std::string_view shell, std::string_view asked_by);

} // namespace tools
