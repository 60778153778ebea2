// http_server - the daemon's HTTP door with all its pages: health, figures, and what the gateway knows.
//
// It exists where the configuration has a section `http`, and only reads.
// Ownership  Owns its threads and its socket. The gateway outlives it.
// Threads    Made, opened and destroyed on the main thread. The actors may start and end while it serves; their
//            records must be there.
// Blocking   The destructor waits for the pages that are being made: half a second at most.
// Failures   The constructor throws std::bad_alloc; open() logs.
#pragma once

#include "http/http_rules.h"
#include "services.h"

#include <memory>

namespace rtls {

class http_server {
public:
    http_server(services& gateway, http_rules rules);
    ~http_server();
    http_server(const http_server&) = delete;
    http_server& operator=(const http_server&) = delete;

    // False, logged, when the port is taken or there is no room for the threads.
    bool open();

private:
    struct state;
    std::unique_ptr<state> m_state;
};

} // namespace rtls
