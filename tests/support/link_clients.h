// link_clients - what tests of the link ask of its clients, and send to them.
//
// Threads    The test's own, which serves the link.
#pragma once

#include "support/hex_bytes.h"
#include "support/log_capture.h"
#include "support/win_link.h"

#include <initializer_list>
#include <string>
#include <vector>

namespace rtls {

inline const bytes_t ping = hex("00 00 05 AA");
inline const bytes_t framed_ping = hex("F5 00 00 05 AA F7");

// A message on the stream, when nothing of it has to be escaped.
inline bytes_t framed(const bytes_t& message)
{
    return hex("F5") + message + hex("F7");
}

std::string key_of(const WIN_CLIENT_t& client);

// The keys of all clients, as the table lists them.
std::vector<std::string> keys_in_table_order(const win_link& link);

// What waits for the client, oldest first.
std::vector<std::string> unsent(WIN_CLIENT_t& client);

// By handle; null means every client.
bool send_to(const win_link& link, zframe_t* id, const bytes_t& message);

// A record whose connection does not exist, with five bytes of identity: whatever is sent to it fails, which
// is logged as `unreachable`.
WIN_CLIENT_t* add_unreachable(const win_link& link, const char* identity);
inline constexpr char unreachable[] = "esc_data_to_win_client: zframe_send: 113, Host unreachable";

// The lines of one of these channels, in the order in which they were printed.
std::vector<std::string> lines_of(log_capture& log, std::initializer_list<const char*> channels);

} // namespace rtls
