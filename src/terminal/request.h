// request - one command being run: who asked, what for, and how it is answered.
//
// Ownership  A request borrows all it names, for the time of its command.
// Threads    Terminal thread; no lock. An answer waits as reply.h says.
// Failures   Memory that runs out throws std::bad_alloc, which ends the command; the server logs it.
#pragma once

#include "services.h"
#include "terminal/client.h"
#include "terminal/reply.h"

#include <czmq.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace rtls {

struct TERMINAL_SERVER_t;

struct terminal_request {
    services& gateway;
    TERMINAL_SERVER_t& server;
    TERMINAL_CLIENT_t* client;
    zsock_t* sock;                     // the stream socket
    zsock_t* dbg_sock;                 // the terminal thread's debug-print socket
    std::span<char* const> words = {}; // of what was typed, for its command: that one's own first

    // One whole answer; false when the operator cannot be reached now.
    bool answer(const char* text) const noexcept { return terminal_send(*client, sock, text); }
    bool answer(const std::string& text) const noexcept { return answer(text.c_str()); }
};

using command_function = void (*)(const terminal_request&);

// The operators' number: hexadecimal by strtol's rules ("0x" and garbage behind it are fine), cut to 16
// bits. Nothing when there is no digit or the number does not fit strtol.
std::optional<uint16_t> get_short_val_from_str(const char* str_value);

} // namespace rtls
