// stream_send - what goes out to one peer of a stream socket, and keeps the socket in step.
//
// The socket takes parts in pairs: a peer's identity, then the bytes for it. A lone part of either kind puts
// it off by one for good, and every later message goes astray. So bytes leave only behind an identity that
// was taken, and a taken identity is always followed by bytes.
// Ownership  Identity and bytes stay the caller's; a part is handed over when it is sent.
// Threads    The socket's.
// Blocking   None, or, if asked for, at the identity for the socket's send time-out.
// Failures   Of the identity, by result and errno: EAGAIN for a peer that does not read. The bytes behind it
//            find room then. Nothing is logged or throws.
#pragma once

#include "base/bytes.h"
#include "base/message_part.h"

#include <czmq.h>

namespace rtls {

enum class when_full { give_up, wait };

// Offers the identity. After true, exactly one stream_send_bytes must follow.
bool stream_send_identity(zsock_t* sock, bytes_view identity, when_full choice) noexcept;

// The bytes for the peer whose identity was taken; none close its connection.
bool stream_send_bytes(zsock_t* sock, message_part& bytes) noexcept;

// Both, without waiting. `bytes` are made before, because that may fail, and stay as they are when the
// identity is refused.
bool stream_send(zsock_t* sock, bytes_view identity, message_part& bytes) noexcept;

// The same for so few bytes that a part has room for them: nothing can fail between identity and bytes.
bool stream_send_small(zsock_t* sock, bytes_view identity, bytes_view bytes) noexcept;

// Whether something waits to be received, by libzmq's handle of any socket. Unknown counts as something.
bool has_events(void* socket) noexcept;

} // namespace rtls
