// message_part - one part of a ZeroMQ message, owned: received into, or made to be sent.
//
// Not a zframe: a report then costs no allocation of ours (the library keeps small parts in place), and
// the connection's descriptor can be asked of the part itself.
// Threads    None of its own.
// Failures   Nothing throws. Neither receiving nor sending waits unless it is told to; errno tells why they
//            failed.
#pragma once

#include "base/bytes.h"

#include <zmq.h>

namespace rtls {

// As many bytes as libzmq keeps within a part itself, for which it asks for no memory.
constexpr size_t inline_part_size = 33;

// Sends a copy of `content` as one part, as message_part::send does: that is fewer calls of the library for one
// that nobody needs any more. False also when memory is short for more than inline_part_size bytes.
inline bool send_copy(void* socket, bytes_view content, bool more = false, bool wait = false) noexcept
{
    return zmq_send(socket, content.data(), content.size(),
                    (more ? ZMQ_SNDMORE : 0) | (wait ? 0 : ZMQ_DONTWAIT)) >= 0;
}

class message_part {
public:
    // Empty, to receive into.
    message_part() noexcept : m_is_made(zmq_msg_init(&m_message) == 0) {}
    // Of `size` bytes, not cleared. Check is_made().
    explicit message_part(size_t size) noexcept : m_is_made(zmq_msg_init_size(&m_message, size) == 0) {}
    // A copy of `content`. Check is_made().
    explicit message_part(bytes_view content) noexcept : message_part(content.size())
    {
        if (m_is_made)
            store_bytes({data(), content.size()}, 0, content);
    }
    // Of `memory`, which `let_go` is called for with `hint` when nobody needs it any more, on any thread: at once when
    // it is not made. Check is_made().
    message_part(bytes_span memory, zmq_free_fn* let_go, void* hint) noexcept
        : m_is_made(zmq_msg_init_data(&m_message, memory.data(), memory.size(), let_go, hint) == 0)
    {
        if (!m_is_made)
            let_go(memory.data(), hint);
    }
    // One that could not be made, for those who find out before.
    struct not_made {};
    explicit message_part(not_made /*reason*/) noexcept : m_is_made(false) {}
    ~message_part()
    {
        if (m_is_made)
            zmq_msg_close(&m_message);
    }
    message_part(const message_part&) = delete;
    message_part& operator=(const message_part&) = delete;

    bool is_made() const noexcept { return m_is_made; }
    uint8_t* data() noexcept { return static_cast<uint8_t*>(zmq_msg_data(&m_message)); }
    size_t size() const noexcept { return zmq_msg_size(&m_message); }
    bytes_view bytes() noexcept { return {data(), size()}; }

    // Replaces the content by the next part that `socket` (libzmq's handle) has. False when there is none.
    // `wait`: for one, up to the socket's receive time-out.
    bool receive(void* socket, bool wait = false) noexcept
    {
        return zmq_msg_recv(&m_message, socket, wait ? 0 : ZMQ_DONTWAIT) >= 0;
    }

    // Takes over the content of `other`, which is empty then.
    void take(message_part& other) noexcept { (void)zmq_msg_move(&m_message, &other.m_message); }

    // Hands the content over to `socket`, or leaves it as it is. `more`: another part of this message
    // follows. `wait`: for room, up to the socket's send time-out.
    bool send(void* socket, bool more = false, bool wait = false) noexcept
    {
        return zmq_msg_send(&m_message, socket, (more ? ZMQ_SNDMORE : 0) | (wait ? 0 : ZMQ_DONTWAIT)) >= 0;
    }

    // The descriptor of the connection that the part came by. Valid on a connection's first event only:
    // later the number may belong to somebody else.
    int source_fd() const noexcept { return zmq_msg_get(&m_message, ZMQ_SRCFD); }

private:
    mutable zmq_msg_t m_message; // libzmq's getters are not const
    bool m_is_made;
};

} // namespace rtls
