// http_rules - the optional section `http` of the configuration: who is served, and where.
//
// Ownership  Values.
// Threads    Main thread, while the services are created.
// Blocking   Reading the token waits for the disk.
// Failures   Logged. May throw std::bad_alloc.
#pragma once

#include <czmq.h>

#include <cstdint>
#include <optional>
#include <string>

namespace rtls {

struct http_rules {
    std::string address = "127.0.0.1"; // IPv4; "*": all of this host's
    uint16_t port = 0;                 // host order
    std::string token;                 // what clients must bring along; "": nothing
};

// http/port, http/address, http/token (a file that holds the token). None without the section. False, with an
// error in the log, when the section is there and a key can't be read: a door must not stand wider open than
// somebody meant.
bool read_http_rules(zconfig_t* config, std::optional<http_rules>& rules);

} // namespace rtls
