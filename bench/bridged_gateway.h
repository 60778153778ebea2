// bridged_gateway - an idle gateway with bridges on real connections to its WIN port, for benchmarks: what is
// sent to them can be counted, and the server's loop run for as long as its work takes.
//
// Ownership  The gateway's table owns the bridges' records; the bridges' ends of the connections are ours.
// Threads    The caller's own, which works as the WIN server's.
// Blocking   The constructor, until every bridge is in the table; the others for up to a minute without success.
// Failures   What cannot be connected ends the program.
#pragma once

#include "base/counter.h"
#include "base/czmq_ptr.h"
#include "link/win_clients.h"
#include "support/idle_gateway.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace rtls {

class bridged_gateway : public idle_gateway {
public:
    explicit bridged_gateway(size_t bridges);
    ~bridged_gateway();
    bridged_gateway(const bridged_gateway&) = delete;
    bridged_gateway& operator=(const bridged_gateway&) = delete;

    [[nodiscard]] size_t bridges() const { return m_bridges.size(); }
    [[nodiscard]] WIN_CLIENT_t& record(size_t bridge) const { return *m_bridges[bridge].record; }
    // The bridge's own end of its connection.
    [[nodiscard]] int connection(size_t bridge) const { return m_bridges[bridge].connection; }

    // Has the loop read this socket too from now on.
    void read(zsock_t* socket, zloop_reader_fn* handler);
    // Runs the loop, which asks as many sockets as the daemon's does, until the figure has grown to `value`; false
    // when that takes too long.
    bool run_until(const counter& figure, uint64_t value);

    // Takes what the bridges have been sent, `expected` messages; false when it is another number.
    bool take_from_bridges(size_t expected);

private:
    struct connected_bridge {
        int connection = -1;
        WIN_CLIENT_t* record = nullptr;
        win_client_ptr replies; // decodes what the bridge receives
    };

    struct loop_reader {
        bridged_gateway* gateway;
        zloop_reader_fn* handler;
    };

    void accept_bridge(connected_bridge& bridge);
    static int read_one(zloop_t* loop, zsock_t* socket, void* p_reader) noexcept;

    std::vector<connected_bridge> m_bridges;
    std::vector<zsock_ptr> m_idle_sockets;
    std::deque<loop_reader> m_readers; // the loop has their addresses
    const counter* m_figure = nullptr;
    uint64_t m_wanted = 0;
};

// A name in this process for a socket to bind to. Never the same: a closed socket gives its own up some time later.
std::string unused_endpoint();

} // namespace rtls
