// null_check - the first line of every public function: are the arguments there?
//
// Threads    Any. Nothing waits but for the logger's short locks, and that for null arguments only.
// Failures   What is null is logged; nothing throws.
#pragma once

#include "base/common.h"
#include "base/logger.h"

namespace rtls {

// Whether one of the pointers is null; if so, logs "<function>: null pointer!". All of them are evaluated
// before, so a member of one that may be null needs a second call.
template <typename... Pointers>
[[nodiscard]] bool any_null(const char* function, const Pointers*... pointers) noexcept
{
    const bool found = (... || !pointers);
    if (found) [[unlikely]]
        logger_error(g_logger, str_null_pointer, function);
    return found;
}

} // namespace rtls
