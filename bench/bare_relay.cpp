// bare_relay - the least that any gateway must do: stream socket in, unstuffing, two-frame push out.
//
// The yardstick of the end-to-end benchmark: it keeps no registry, answers nothing, checks nothing.
//   bare_relay WIN_PORT HANDLER_PORT [PROXY_PORT]
// With a proxy, commands go the other way: hex digits, looked up by the MAC at their end, stuffed, sent. It learns the
// bridges' MACs from what they say first.
#include "base/hex.h"
#include "wire/messaging.h"
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
    bool is_named = false;
};

void push(void* handler, const std::vector<uint8_t>& message)
{
    const std::array<uint8_t, 6> timestamp{};
    if (zmq_send(handler, timestamp.data(), timestamp.size(), ZMQ_SNDMORE) >= 0)
        zmq_send(handler, message.data(), message.size(), 0);
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

// What the relay works with.
struct relay_links {
    void* win;
    void* handler;
    void* proxy;                                                  // null without one
    std::unordered_map<std::string, relay_peer> peers;            // by identity
    std::unordered_map<std::string, std::string> identities = {}; // by the digits of the bridge's MAC
};

void learn(relay_links& links, const std::string& identity, relay_peer& peer)
{
    if (peer.message.size() != gwMsgHeartbeat_t::size)
        return;
    links.identities[to_hex(bytes_view{peer.message}.subspan(gwMsgHeartbeat_t::bridge_mac, 8))] = identity;
    peer.is_named = true;
}

bool relay_up(relay_links& links, int flags)
{
    zmq_msg_t id;
    zmq_msg_t data;
    zmq_msg_init(&id);
    zmq_msg_init(&data);
    const bool is_there = zmq_msg_recv(&id, links.win, flags) >= 0 && zmq_msg_recv(&data, links.win, 0) >= 0;
    if (is_there) {
        const std::string identity(static_cast<char*>(zmq_msg_data(&id)), zmq_msg_size(&id));
        relay_peer& peer = links.peers[identity];
        unstuff(peer, static_cast<uint8_t*>(zmq_msg_data(&data)), zmq_msg_size(&data), links.handler);
        if (links.proxy && !peer.is_named)
            learn(links, identity, peer);
    }
    zmq_msg_close(&id);
    zmq_msg_close(&data);
    return is_there;
}

uint8_t digit(char c)
{
    return static_cast<uint8_t>(c <= '9' ? c - '0' : c - 'A' + 10);
}

bool relay_down(relay_links& links)
{
    constexpr size_t mac_digits = 16;
    std::array<char, 1024> text{};
    std::array<uint8_t, 512> message{};
    std::array<uint8_t, slip_encoded_limit(512)> stuffed{};
    const int size = zmq_recv(links.proxy, text.data(), text.size(), ZMQ_DONTWAIT);
    if (size < static_cast<int>(mac_digits) || size > static_cast<int>(text.size()))
        return false;
    const size_t digits = static_cast<size_t>(size) - mac_digits;
    const auto to = links.identities.find(std::string(text.data() + digits, mac_digits));
    if (to == links.identities.end())
        return true;
    for (size_t i = 0; i < digits / 2; ++i)
        message[i] = static_cast<uint8_t>(digit(text[2 * i]) << 4 | digit(text[2 * i + 1]));
    const size_t bytes = slip_encode(std::span{message}.first(digits / 2), stuffed.data());
    zmq_send(links.win, to->second.data(), to->second.size(), ZMQ_SNDMORE);
    zmq_send(links.win, stuffed.data(), bytes, 0);
    return true;
}

void relay_both_ways(relay_links& links)
{
    std::array<zmq_pollitem_t, 2> items{{{links.win, 0, ZMQ_POLLIN, 0}, {links.proxy, 0, ZMQ_POLLIN, 0}}};
    while (zmq_poll(items.data(), items.size(), -1) >= 0) {
        while (relay_up(links, ZMQ_DONTWAIT))
            continue;
        while (relay_down(links))
            continue;
    }
}

bool connect_to(void* socket, const char* port)
{
    return zmq_connect(socket, ("tcp://127.0.0.1:" + std::string(port)).c_str()) == 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3 && argc != 4) {
        std::fprintf(stderr, "usage: %s WIN_PORT HANDLER_PORT [PROXY_PORT]\n", argv[0]);
        return 2;
    }
    void* context = zmq_ctx_new();
    relay_links links{zmq_socket(context, ZMQ_STREAM),
                      zmq_socket(context, ZMQ_PUSH),
                      argc == 4 ? zmq_socket(context, ZMQ_SUB) : nullptr,
                      {}};
    const int backlog = 1024;
    zmq_setsockopt(links.win, ZMQ_BACKLOG, &backlog, sizeof backlog);
    if (zmq_bind(links.win, ("tcp://127.0.0.1:" + std::string(argv[1])).c_str()) != 0 ||
        !connect_to(links.handler, argv[2]) || (links.proxy && !connect_to(links.proxy, argv[3]))) {
        std::perror("bare_relay");
        return 1;
    }
    if (links.proxy) {
        zmq_setsockopt(links.proxy, ZMQ_SUBSCRIBE, "", 0);
        relay_both_ways(links);
    } else {
        while (relay_up(links, 0))
            continue;
    }
    return 0;
}
