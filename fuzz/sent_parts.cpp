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

extern "C" int __wrap_zmq_msg_send(zmq_msg_t* message, void* socket, int flags)
{
    if (const auto refusal = refusals().find(socket); refusal != refusals().end() && refusal->second != 0) {
        errno = refusal->second;
        return -1;
    }
    const size_t size = zmq_msg_size(message);
    sent_parts().push_back(
        {socket, {static_cast<const char*>(zmq_msg_data(message)), size}, (flags & ZMQ_SNDMORE) != 0});
    zmq_msg_close(message); // as a socket does: the sender has an empty one
    zmq_msg_init(message);
    return static_cast<int>(size);
}

} // namespace rtls::fuzzing
