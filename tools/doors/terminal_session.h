// terminal_session - a connection with a gateway's terminal, which asks one thing after the other.
//
// The terminal takes what arrives in one piece as one command, and the first word of it alone: three lines sent at
// once are one command and two that are lost. So a command goes as one packet, and the next one only when the
// answer is whole. The terminal greets nobody, and refuses a connection by closing it without a word.
// Ownership  Owns its connection.
// Threads    One at a time.
// Blocking   Connecting and each answer wait for the time-out at most; read_more does not wait.
// Failures   Thrown: unreachable when nobody is there or the connection ends, timed_out when no whole answer comes.
#pragma once

#include "base/unique_fd.h"
#include "doors/gateways_file.h"
#include "doors/terminal_texts.h"

#include <chrono>
#include <string>
#include <string_view>

namespace ctl {

using seconds = std::chrono::duration<double>;

class terminal_session {
public:
    terminal_session(const endpoint& where, seconds timeout);

    // The whole answer. A command that cannot be sent as one packet or would be cut at its blanks is the caller's
    // to avoid: it is refused (usage).
    std::string ask(std::string_view command, ending_rule end_of_answer);

    // --- The debug stream, behind the answer to "sub".
    int descriptor() const { return m_fd.get(); }
    // What has come and was not taken yet. Throws `unreachable` when the connection has ended.
    std::string read_more();

private:
    void connect(const endpoint& where, seconds timeout);
    void send(std::string_view command);
    void receive();

    std::string m_where;
    seconds m_timeout;
    rtls::unique_fd m_fd;
    std::string m_received; // and not taken yet
};

} // namespace ctl
