// source_location - a place in the source code, as log records and exceptions name it.
//
// Ownership  Both texts are borrowed, usually from the compiler's own constants.
// Threads    Any; pure functions.
// Failures   Nothing throws.
#pragma once

#include <cstdint>
#include <string_view>

namespace tav::libs::core {

struct source_location {
    int64_t m_line = 0;
    std::string_view m_file;
    std::string_view m_function; // the full signature

    // The path without the build's source root; a path no longer than the root stays whole.
    std::string_view short_file() const;

    // The function's name from the last "tav::" on, without result type and parameters; the whole
    // signature if it names nothing of ours or has no parameter list.
    std::string_view short_function() const;
};

} // namespace tav::libs::core

// The place where this stands. A macro, because std::source_location gives the signature with one of
// our compilers only.
#define TAV_SOURCE_LOCATION                                                                                  \
    (tav::libs::core::source_location{__LINE__, __FILE__, static_cast<const char*>(__PRETTY_FUNCTION__)})
