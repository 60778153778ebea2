// bare_relay - the least that any gateway must do: stream socket in, unstuffing, two-frame push out.
//
// The yardstick of the end-to-end benchmark: it keeps no registry, answers nothing, checks nothing.
//   bare_relay WIN_PORT HANDLER_PORT
#include "wire/slip.h"

#include <zmq.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unordered_map>
#include <vector>

using namespace rtls;

namespace {

struct relay_peer {
    std::vector<uint8_t> message;
    bool inside = false;
    bool escaped = false;
};

void push(void* handler, const std::vector<uint8_t>& message)
{
    const std::array<uint8_t, 6> timestamp{};
    if (zmq_send(handler, timestamp.data(), timestamp.size(), ZMQ_SNDMORE | ZMQ_DONTWAIT) >= 0)
        zmq_send(handler, message.data(), message.size(), ZMQ_DONTWAIT);
}

void unstuff(relay_peer& peer, const uint8_t* data, size_t size, void* handler)
{
    for (const uint8_t* end = data + size; data != end; ++data) {
        if (peer.escaped) {
            peer.message.push_back(*data);
            peer.escaped = false;
        } else if (*data == slip_start) {
            peer.message.clear();
            peer.inside = true;
        } else if (!peer.inside) {
            continue;
        } else if (*data == slip_esc) {
            peer.escaped = true;
        } else if (*data == slip_end) {
            push(handler, peer.message);
            peer.inside = false;
        } else {
            peer.message.push_back(*data);
        }
    }
}

void relay(void* win, void* handler)
{
    std::unordered_map<std::string, relay_peer> peers;
    zmq_msg_t id;
    zmq_msg_t data;
    zmq_msg_init(&id);
    zmq_msg_init(&data);
    while (zmq_msg_recv(&id, win, 0) >= 0 && zmq_msg_recv(&data, win, 0) >= 0) {
        relay_peer& peer = peers[std::string(static_cast<char*>(zmq_msg_data(&id)), zmq_msg_size(&id))];
        unstuff(peer, static_cast<uint8_t*>(zmq_msg_data(&data)), zmq_msg_size(&data), handler);
    }
    zmq_msg_close(&id);
    zmq_msg_close(&data);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s WIN_PORT HANDLER_PORT\n", argv[0]);
        return 2;
    }
    void* context = zmq_ctx_new();
    void* win = zmq_socket(context, ZMQ_STREAM);
    void* handler = zmq_socket(context, ZMQ_PUSH);
    const int backlog = 1024;
    zmq_setsockopt(win, ZMQ_BACKLOG, &backlog, sizeof backlog);
    if (zmq_bind(win, ("tcp://127.0.0.1:" + std::string(argv[1])).c_str()) != 0 ||
        zmq_connect(handler, ("tcp://127.0.0.1:" + std::string(argv[2])).c_str()) != 0) {
        std::perror("bare_relay");
        return 1;
    }
    relay(win, handler);
    return 0;
}
