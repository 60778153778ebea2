// proxy_fixture - commands as the proxy sends them go in, and all that the daemon makes of them comes out.
//
// Threads    The test's own; no actor runs.
#pragma once

#include "support/hex_bytes.h"
#include "support/node_command_fixture.h"

#include <string>
#include <vector>

namespace rtls {

class proxy_fixture : public node_command_fixture {
protected:
    static inline const std::string mac = "E4000000000000A1";
    static inline const std::string stranger = "E4000000000000FF"; // whom nobody knows
    static inline const std::string ip = node_ip;

    // The command's bytes stand in a heap buffer of their exact size.
    bool process(const std::string& command);
    // A command that the dispatcher takes; what it printed in section parsing.
    texts_t printed_by(const std::string& command);
    // The same, for a command whose form is wrong: what it logged as errors.
    texts_t logged_by(const std::string& command);
    // The node of `mac`, without a memory of earlier commands.
    void fresh_node(const node_options& options);
    // Sends a command to a node without memory, and then another one that it is to be dropped for. The
    // clock is the machine's, and the machine may be slow: the first pair that comes in time counts.
    bool sends_a_repeat_in_time(const std::string& command, const std::string& repeat, WIN_CLIENT_t* bridge);
};

// --- pieces of commands

std::string hex_of(const std::string& text);
std::string hex32(uint32_t value);
std::string hex16(size_t value);
std::string repeated(const std::string& digits, size_t times);

} // namespace rtls
