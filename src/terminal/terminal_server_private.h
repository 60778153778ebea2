// terminal_server_private - the terminal server's record, for those who work on it: the operators' port, the
// commands, the debug stream, the actor.
//
// Ownership  The record owns what its fields hold, but for the services, which are the gateway's.
// Threads    The actor's thread, but where a member says otherwise.
// Failures   A socket that is not open is null.
#pragma once

#include "base/call_queue.h"
#include "base/czmq_ptr.h"
#include "link/closed_ids.h"
#include "net/connection_cut.h"
#include "net/descriptors.h"
#include "net/door.h"
#include "services.h"
#include "terminal/operator_table.h"
#include "terminal/terminal_counters.h"

#include <czmq.h>
#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

namespace rtls {

struct TERMINAL_SERVER_t {
    zactor_ptr actor;   // owner's thread; null until terminal_server_run
    in_port_t port = 0; // host order
    door entrance{"Terminal"};
    operator_table clients;
    services* rtls_gateway = nullptr; // what the gateway hands out
    std::atomic<bool> ready{false};   // set once by the actor, polled by the owner
    zsock_ptr terminal_sock;          // the actor's, like all that follows
    zsock_ptr dbg_server_sock;
    zsock_ptr dbg_client_sock;
    zsock_ptr winserv_client_sock;
    zloop_ptr actor_loop;
    std::shared_ptr<call_queue> calls;  // by other threads; null while no actor runs
    call_queue_slot calls_of_strangers; // the same, for threads that the actor does not know

    // Connections whose record is gone although they live; see forget_client.
    std::set<std::string, std::less<>> forgotten_ids;
    connection_cuts cuts; // of those who quit and do not read
    uint64_t drained = 0; // how often no event was left in terminal_sock
    bool silence_check_is_planned = false;
    full_house house{"operators"};
    closed_id_set refused_ids; // connections that may not come in
    terminal_counters counts;  // read by any thread
    bool shows_pulse = false;

    // An image has been fetched for the operator with this identity, or could not be (index -1); the server
    // wires it.
    void (*fetch_ended)(TERMINAL_SERVER_t& server, const std::string& id_str, int index) = nullptr;
};

inline constexpr int terminal_timeout_ms = 100; // how long a slow terminal may hold up the thread

// What a reader takes before the others have their turn: the loop asks every socket for news in between,
// which costs more than a line of the debug stream does. One command or filter may take its time: then the
// turn ends with it.
class turn {
public:
    // Whether one more event may be handled.
    bool goes_on() noexcept { return ++m_events < most_events && zclock_usecs() - m_began < most_us; }

private:
    static constexpr int most_events = 64;
    static constexpr int64_t most_us = 2000;
    int m_events = 0;
    const int64_t m_began = zclock_usecs();
};

} // namespace rtls
