// source_location - a place in the source code, as log records and exceptions name it.
//
// Ownership  Both texts are borrowed, usually from the compiler's own constants.
#pragma once

#include <cstdint>
#include <source_location>
#include <string_view>

namespace tav::libs::core {

struct source_location {
    int64_t m_line = 0;
    std::string_view m_file;
    std::string_view m_function; // the full signature

    // The place of the call.
    static source_location current(const std::source_location& place = std::source_location::current());

    // The path without the build's source root; a path no longer than the root stays whole.
    std::string_view short_file() const;

    // The function's name from the last "tav::" on, without result type and parameters; the whole
    // signature if it names nothing of ours or has no parameter list.
    std::string_view short_function() const;
};

} // namespace tav::libs::core
