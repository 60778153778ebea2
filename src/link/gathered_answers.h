// gathered_answers - messages to the client whose bytes are being read, gathered to leave in one piece:
// answering each message of a flood by a piece of its own would cost several times what reading it does.
//
// Ownership  The server's record owns them. The client is borrowed, for as long as its bytes are read.
// Threads    WIN server thread. Nothing waits.
// Bytes      Framed already, as they go out.
// Failures   None: what finds no room is for its caller to send. Nothing throws.
#pragma once

#include "link/unsent_messages.h"

#include <array>

namespace rtls {

class gathered_answers {
public:
    // Answers to this client gather from now on; null: to nobody.
    void begin(WIN_CLIENT_t* client) noexcept { m_client = client; }
    bool is_for(const WIN_CLIENT_t& client) const noexcept { return m_client == &client; }
    WIN_CLIENT_t* client() const noexcept { return m_client; }

    bool empty() const noexcept { return m_number == 0; }
    size_t number() const noexcept { return m_number; } // of messages
    // False when there is no room for one more.
    bool add(bytes_view message) noexcept;
    bytes_view bytes() const noexcept { return {m_bytes.data(), m_used}; }
    void clear() noexcept { m_used = m_number = 0; }

    // Calls visit(bytes_view) for each message, in order.
    template <typename Visitor>
    void for_each(Visitor visit) const
    {
        const uint8_t* at = m_bytes.data();
        for (size_t i = 0; i < m_number; at += m_sizes[i++])
            visit(bytes_view{at, m_sizes[i]});
    }

private:
    static constexpr size_t most_messages = stream_piece_limit / 4; // a frame around two bytes; or fewer

    WIN_CLIENT_t* m_client = nullptr;
    size_t m_used = 0;
    size_t m_number = 0;
    std::array<uint8_t, stream_piece_limit> m_bytes;
    std::array<uint16_t, most_messages> m_sizes;
};

} // namespace rtls
