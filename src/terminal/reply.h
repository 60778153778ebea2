// reply - what goes out to an operator, kept in step.
//
// All answers leave through here: a text is sent only behind an identity that was accepted, and an accepted
// identity is always followed by exactly one text (see net/stream_send.h).
//
// Threads    Terminal thread; no lock.
// Blocking   An identity waits for the socket's send time-out at most, and only for an operator who took the
//            frame before: who does not read, or has left, is waited for once until he takes one again.
// Failures   Tell by their result and errno; nothing is logged here, and only text_format throws.
#pragma once

#include "terminal/client.h"

#include <czmq.h>

#include <string>

namespace rtls {

// One answer: addressed when made, sent later.
class terminal_reply {
public:
    // Sends the client's identity.
    terminal_reply(TERMINAL_CLIENT_t& client, zsock_t* sock) noexcept;
    // An answer that was addressed but got no text (memory ran out on the way) becomes an empty line.
    ~terminal_reply();
    terminal_reply(const terminal_reply&) = delete;
    terminal_reply& operator=(const terminal_reply&) = delete;

    // Whether the identity was accepted. If not, errno says why.
    explicit operator bool() const noexcept { return m_sock != nullptr; }

    // Sends the text, once; nothing if the identity was not accepted. An empty text closes the
    // operator's connection.
    void send(const char* text) noexcept;
    void send(const std::string& text) noexcept { send(text.c_str()); }

private:
    zsock_t* m_sock; // null when there is nothing left to send
};

// A whole answer. False when the identity was not accepted, with errno telling why.
bool terminal_send(TERMINAL_CLIENT_t& client, zsock_t* sock, const char* text) noexcept;

// printf into a string.
std::string text_format(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace rtls
