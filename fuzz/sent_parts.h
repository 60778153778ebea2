// sent_parts - takes what the program's own code hands to libzmq, in place of any socket. For targets that catch
// zmq_msg_send and zmq_send.
//
// Ownership  Keeps copies until they are cleared.
// Threads    One: the fuzzer's.
// Failures   A refusal is the target's wish: the sender sees errno, as from a socket.
#pragma once

#include <string>
#include <vector>

namespace rtls::fuzzing {

struct sent_part {
    void* socket;
    std::string bytes;
    bool is_followed; // sent with ZMQ_SNDMORE
};

// What was taken since it was cleared, in order.
std::vector<sent_part>& sent_parts();

// From now on `socket` refuses what it is given, with this errno; 0: it takes it again.
void refuse_parts(void* socket, int error);

} // namespace rtls::fuzzing
