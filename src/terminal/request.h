// terminal_commands_private - what the files of the terminal commands share.
//
// Threads    Terminal thread.
#pragma once

#include "services.h"
#include "terminal/client.h"
#include "terminal/reply.h"

#include <czmq.h>

#include <cstdint>
#include <optional>
#include <span>

namespace rtls {

// One command being run: who asked, what for, and where the answers go.
struct terminal_request {
    services& gateway;
    TERMINAL_CLIENT_t* client;
    zsock_t* sock;     // the stream socket
    zsock_t* dbg_sock; // the terminal thread's debug-print socket
    std::span<char* const> words;

    // One whole answer; false when the operator cannot be reached now.
    bool answer(const char* text) const noexcept { return terminal_send(client->id.get(), sock, text); }
    bool answer(const std::string& text) const noexcept { return answer(text.c_str()); }
};

using command_function = void (*)(const terminal_request&);

// The operators' number: hexadecimal by strtol's rules ("0x" and garbage behind it are fine), cut to 16
// bits. Nothing when there is no digit or the number does not fit strtol.
std::optional<uint16_t> get_short_val_from_str(const char* str_value);

// --- terminal_listing.cpp
void command_pcl(const terminal_request& request);
void command_pn(const terminal_request& request);
void command_pnf(const terminal_request& request);

// --- terminal_firmware.cpp
void command_firmware(const terminal_request& request);

} // namespace rtls
