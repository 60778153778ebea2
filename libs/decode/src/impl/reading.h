// reading - bytes along the table of layouts, to fields.
//
// Ownership  What is read is a value; nothing points into the bytes, which are the caller's.
// Threads    Any: pure functions. Nothing waits.
// Failures   A reason; std::bad_alloc.
#pragma once

#include "impl/layouts.h"

#include <string>

namespace rtls::decode {

// The kind and the fields of the message that the bytes are, all of them. Otherwise false, and why they are none.
bool read_message(const message_set& set, bytes_view bytes, std::string& kind, group& fields,
                  std::string& reason);

} // namespace rtls::decode
