// writing - fields along the table of layouts, to bytes.
//
// Ownership  Values; the layouts are constants.
// Threads    Any: pure functions. Nothing waits.
// Failures   A reason; std::bad_alloc.
#pragma once

#include "impl/layouts.h"

#include <span>

namespace rtls::decode {

// The bytes of the message of this kind with these fields, all of which it must know.
encoded write_message(const message_set& set, std::string_view kind, const group& fields);

// The body of a generic request: its sub-command, and what follows from it.
encoded write_body(std::span<const body_layout> bodies, const group& fields);

} // namespace rtls::decode
