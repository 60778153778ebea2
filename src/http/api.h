// api - the pages in JSON about the gateway, its bridges, nodes, operators and firmware: /api/v1/.
//
// docs/openapi.json describes them; a test compares.
// Ownership  The gateway outlives it.
// Threads    Any.
// Blocking   Pages that ask an actor wait half a second at most for it. The others: locks that are held for a
//            copy.
// Failures   503 when an actor does not answer, or the door ends, 404 and 400 for what is not there or cannot be read.
//            std::bad_alloc.
#pragma once

#include "http/responder.h"
#include "services.h"

#include <atomic>
#include <cstdint>

namespace rtls {

class api {
public:
    explicit api(services& gateway);

    // Walks through the nodes end soon from now on, with a refusal: their pages would hold up the daemon's end.
    void stop() { m_is_stopping = true; }

    page version(const page_request& request) const;
    page status(const page_request& request) const;
    page bridges(const page_request& request) const;
    page nodes(const page_request& request) const;
    page node(const page_request& request) const; // request.rest: its MAC
    page operators(const page_request& request) const;
    page firmware(const page_request& request) const;

private:
    services& m_gateway;
    const int64_t m_started_ms; // of zclock_time
    const int64_t m_started_mono_ms;
    std::atomic<bool> m_is_stopping{false};
};

} // namespace rtls
