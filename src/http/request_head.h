// request_head - what a client may say: where its request ends, and what of it is taken.
//
// Everything that a stranger sends is looked at here first, byte by byte and without any library: the rest of
// the door sees a request line and the few headers that mean something to us.
// Ownership  Values.
// Threads    Any: pure.
// Failures   std::bad_alloc.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace rtls {

constexpr size_t request_head_limit = 8192; // bytes, with the empty line that ends it
constexpr size_t request_headers_limit = 64;

// How many bytes the request's head at the beginning of `bytes` has; 0 when its end is not there yet.
size_t request_head_size(std::string_view bytes);

struct request_head {
    std::string text;          // the request line, Accept and Connection, and the empty line
    std::string authorization; // as the client wrote it: the library would take %41 for an A
    bool has_body = false;     // which nobody is going to read: the connection ends with the answer
};

// Nothing when it is no request of HTTP/1.0 or HTTP/1.1, has control characters, or too many headers.
std::optional<request_head> read_request_head(std::string_view head);

} // namespace rtls
