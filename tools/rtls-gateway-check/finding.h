// finding - one thing that is wrong with a configuration, or dangerous: where, what comes of it, what to do.
//
// Ownership  Values.
// Threads    Any; nothing is kept.
// Failures   Throws std::bad_alloc.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace rtls::check {

enum class severity : unsigned char {
    refused, // the daemon does not start: it ends while it reads, with status 1
    ends,    // it ends when it opens its ports and links, with status 0
    harm,    // it runs, and does something else than what is written
    warning, // it does what is written, which may not be wise
};
std::string_view name_of(severity level) noexcept;

struct finding {
    severity level;
    std::string kind; // a word for scripts: "misspelt"
    std::string key;  // "ports/win", or "" when it belongs to none
    size_t line;      // 0: to no line
    std::string text;
    std::string remedy;
};
using findings = std::vector<finding>;

// Anything worse than a warning.
bool has_problem(const findings& found) noexcept;

} // namespace rtls::check
