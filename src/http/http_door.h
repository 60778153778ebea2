// http_door - the listening socket of the HTTP port, its connections, and the threads behind it.
//
// One thread does all that waits for clients: it takes connections in, reads heads and writes answers, each in
// its own time. Whole requests go to two others, which make the answers and never see a socket: a client who
// stands still holds up nobody. All three are called "rtls-http" and take no signals.
//
// Bounds: 64 connections (for one more, the one that has been silent for longest goes), 8 KiB of a head, 5 s
// for a head, 60 s of silence between two requests, 10 s for an answer to be taken.
// Whoever is refused something is counted, and the first of an episode said.
// Ownership  Owns its threads and sockets. The responder and the counts outlive it.
// Threads    Made, opened and destroyed on one thread.
// Blocking   The destructor waits for the pages that are being made, for nothing else.
// Failures   open() logs them.
#pragma once

#include "http/http_rules.h"
#include "http/responder.h"
#include "net/http_refusals.h"

#include <memory>

namespace rtls {

struct http_times {
    int head_ms = 5000;
    int silence_ms = 60'000;
    int answer_ms = 10'000;
    int farewell_ms = 1000; // for a client to take what it was told last
};

class http_door {
public:
    static constexpr size_t connections_limit = 64;

    http_door(responder& pages, http_refusals& refusals, http_times times = {});
    ~http_door();
    http_door(const http_door&) = delete;
    http_door& operator=(const http_door&) = delete;

    // Binds, and begins to serve. False, logged, when the port is taken or there is no room for the threads.
    bool open(const http_rules& rules);

private:
    class state;
    std::unique_ptr<state> m_state;
};

} // namespace rtls
