// management - the lines to the proxy input, taken apart.
//
// Their wording is wire/report_texts': a line is right when that would write it so, to the letter.
// Ownership  Values.
// Threads    Any: pure functions. Nothing waits.
// Failures   A reason; std::bad_alloc.
#pragma once

#include "decode/decode.h"

namespace rtls::decode {

decoded decode_line(bytes_view line);
encoded encode_line(const decoded& message);

} // namespace rtls::decode
