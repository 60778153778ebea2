// layout_text - the table of layouts for people, as docs/decode.md has it.
//
// Ownership  Values.
// Threads    Any: a pure function.
// Failures   Of memory: std::bad_alloc.
#pragma once

#include "decode/decode.h"

#include <string>

namespace rtls::decode {

// The rows of this direction in Markdown; a management line's are those of the requests it is made from.
std::string layout_text(direction way);
// The bodies of generic requests by sub-command: those that go up, or down.
std::string body_text(direction way);

} // namespace rtls::decode
