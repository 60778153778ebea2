#include "sent_parts.h"

#include <zmq.h>

#include <cerrno>
#include <map>

namespace rtls::fuzzing {

std::vector<sent_part>& sent_parts()
{
    static std::vector<sent_part> parts;
    return parts;
}

static std::map<void*, int>& refusals()
{
    static std::map<void*, int> errors;
    return errors;
}

void refuse_parts(void* socket, int error)
{
    refusals()[socket] = error;
}

// Keeps a part instead of sending it: its size; or -1, with errno set, when the socket is to refuse.
static int keep(void* socket, const void* content, size_t size, int flags)
{
    if (const auto refusal = refusals().find(socket); refusal != refusals().end() && refusal->second != 0) {
        errno = refusal->second;
        return -1;
    }
    sent_parts().push_back({socket, {static_cast<const char*>(content), size}, (flags & ZMQ_SNDMORE) != 0});
    return static_cast<int>(size);
}

extern "C" int __wrap_zmq_send(void* socket, const void* content, size_t size, int flags)
{
    return keep(socket, content, size, flags);
}

extern "C" int __wrap_zmq_msg_send(zmq_msg_t* message, void* socket, int flags)
{
    const int size = keep(socket, zmq_msg_data(message), zmq_msg_size(message), flags);
    if (size < 0)
        return -1;
    zmq_msg_close(message); // as a socket does: the sender has an empty one
    zmq_msg_init(message);
    return size;
}

} // namespace rtls::fuzzing
