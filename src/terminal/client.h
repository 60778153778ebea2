// terminal_client - the record of one operator connected to the terminal port.
//
// Ownership  A record owns its identity frame and its filter. The terminal server's table owns the records.
// Threads    Terminal thread.
#pragma once

#include <czmq.h>
#include <netinet/in.h>
#include <regex.h>

#include <cstdint>

namespace rtls {

typedef struct TERMINAL_CLIENT {
    zframe_t* id;            // owned copy of the stream socket's routing identity
    char* grep_string;       // owned (malloc), or null; may name a pattern that failed to compile
    regex_t* preg;           // owned (malloc), or null: no filter
    uint8_t subscribed;      // 1: receives the debug stream
    sockaddr_in client_addr; // zero when unknown

    int fd; // the connection's descriptor as seen at connect, or -1; closed by the library, not by us
} TERMINAL_CLIENT_t;

// Frees the compiled filter: every line passes from now on. The pattern's text stays.
void terminal_client_clear_filter(TERMINAL_CLIENT_t& client) noexcept;

// Frees the record and all it owns; leaves null. Takes null. (CZMQ's item destructor.)
void terminal_client_item_destructor(void** item);

} // namespace rtls
