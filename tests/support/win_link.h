// win_link - a gateway whose WIN port is open on the loopback and served by the test's own thread.
//
// The gateway is a real one, built from a file; its actors do not run. The test moves the traffic by
// calling the reader of the WIN port until what it waits for has happened.
// Threads    The test's own.
// Failures   Throws std::runtime_error when the link does not do in time what every test needs of it.
#pragma once

#include "support/tcp_peer.h"
#include "support/test_gateway.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace rtls {

class win_link {
public:
    // `high_water_mark`: frames that one connection queues before it refuses more; 0: the library's default.
    explicit win_link(int high_water_mark = 0);
    ~win_link();
    win_link(const win_link&) = delete;
    win_link& operator=(const win_link&) = delete;

    WIN_SERVER_t& server() const { return m_gateway.win_server(); }
    NODES_CONTAINER_t* nodes() const { return m_gateway.nodes(); }
    zloop_t* loop() const { return server().actor_loop; }
    uint16_t port() const { return m_port; }

    // Calls the reader whenever there is something to read, until `done` holds.
    bool pump_until(const std::function<bool()>& done) const;
    // A new connection and its record, the greeting read.
    struct linked_bridge {
        tcp_peer peer;
        WIN_CLIENT_t* client;
    };
    linked_bridge connect(int receive_buffer = 0) const;
    std::vector<linked_bridge> connect_many(size_t count) const;
    // The record of the connection from this port, or null.
    WIN_CLIENT_t* find(uint16_t peer_port) const;
    size_t clients() const { return server().clients.size(); }
    // Makes the bridge known as a living node on its own connection, so that supervision wants it.
    void make_wanted(const WIN_CLIENT_t& client) const;
    // Sends raw bytes to a peer that does not read until the connection takes no more; returns them all.
    std::string fill(WIN_CLIENT_t& client) const;

private:
    test_gateway m_gateway;
    uint16_t m_port;
};

} // namespace rtls
