// idle_gateway - a gateway whose actors do not run, with a bridge to speak for: benchmarks and fuzzers
// call its functions directly.
//
// Its sockets are open but lead nowhere, until the caller connects them. Needs no test framework.
// Threads    The caller's own.
#pragma once

#include "support/test_gateway.h"

namespace rtls {

class idle_gateway : public test_gateway {
public:
    idle_gateway();
    ~idle_gateway();
    idle_gateway(const idle_gateway&) = delete;
    idle_gateway& operator=(const idle_gateway&) = delete;

    WIN_SERVER_t& server() { return m_server; }
    WIN_CLIENT_t& bridge() { return *m_bridge; }

    static void drop_unsent(WIN_CLIENT_t& bridge);
    // Forgets every node.
    void delete_nodes();

private:
    WIN_SERVER_t& m_server;
    WIN_CLIENT_t* m_bridge;
};

} // namespace rtls
