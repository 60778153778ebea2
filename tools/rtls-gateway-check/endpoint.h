// endpoint - what the messaging library takes as an address to connect to.
//
// It looks at the text when it is asked to connect, and refuses what cannot be one; names are resolved later. A test
// holds these functions to the library.
// Ownership  Values; views are of the text that was given.
// Threads    Pure.
// Failures   None.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace rtls::check {

// Whether "tcp://<host>:<port>" can be connected to, as far as the text says.
bool is_connectable(std::string_view host) noexcept;
bool is_ipv4(std::string_view host);
// Of a door: all of this host's.
bool is_every_address(std::string_view address) noexcept;

struct endpoint_parts {
    std::string_view transport; // "tcp"
    std::string_view host; // of tcp: between the slashes and the last colon; otherwise all of the address
    std::optional<uint16_t> port;
};
// Nothing when the text is no endpoint at all.
std::optional<endpoint_parts> parse_endpoint(std::string_view text);

} // namespace rtls::check
