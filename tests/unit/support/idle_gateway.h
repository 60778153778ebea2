// idle_gateway - a gateway whose actors do not run, with a bridge to speak for: benchmarks and fuzzers
// call its functions directly.
//
// Its sockets are open but lead nowhere, until the caller connects them. Needs no test framework.
// Threads    The caller's own.
#pragma once

#include "base/bytes.h"
#include "link/win_server_private.h"

namespace rtls {

// A gateway with every required key configured, the debug sections off, and room for two firmware
// images; or nullptr. The caller's, for rtls_gateway_destroy.
void* new_idle_gateway();

class idle_gateway {
public:
    // Ends the program when it cannot be made.
    idle_gateway();
    ~idle_gateway();
    idle_gateway(const idle_gateway&) = delete;
    idle_gateway& operator=(const idle_gateway&) = delete;

    void* handle() { return m_gateway; }
    WIN_SERVER_t& server() { return *m_server; }
    void* nodes() { return m_nodes; }
    // A client of the server's table that nobody is connected for: what is sent to it waits in its
    // list of unsent messages.
    WIN_CLIENT_t& bridge() { return *m_bridge; }

    // A bridge with this identity; it lives as long as the gateway.
    WIN_CLIENT_t* add_bridge(bytes_view identity);
    static void drop_unsent(WIN_CLIENT_t& bridge);
    // Forgets every node.
    void delete_nodes();

private:
    void* m_gateway;
    WIN_SERVER_t* m_server;
    void* m_nodes;
    WIN_CLIENT_t* m_bridge;
};

} // namespace rtls
