// terminal_fixture - a gateway of a test's own, and operators who connect to it.
#pragma once

#include "base/czmq_ptr.h"
#include "registry/node.h"
#include "terminal/client.h"

#include <czmq.h>
#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace rtls {

using zsock_ptr = std::unique_ptr<zsock_t, destroyed_by<zsock_destroy>>;

// A TCP port that nobody listens on now.
uint16_t free_tcp_port();

// Whether the condition comes true in time.
bool comes_true(const std::function<bool()>& condition, int timeout_ms = 5000);

// Takes back what an ending actor raises: the daemon's interrupt flag, which the daemon never clears.
void clear_stop_request();

// A gateway object on free ports, nothing started. Wants loggers (a log_capture) to be there already.
class test_gateway {
public:
    test_gateway();
    ~test_gateway(); // also clears the stop request of the actors
    test_gateway(const test_gateway&) = delete;
    test_gateway& operator=(const test_gateway&) = delete;

    void run_terminal_server(); // and waits until it is ready
    void run_win_server();
    void stop(); // destroys the gateway; the handle is null from then on

    void* handle() const { return m_handle; }
    void* nodes() const;
    uint16_t terminal_port() const { return m_terminal_port; }
    uint16_t win_port() const { return m_win_port; }

    // A node in the registry: alive, reached through the WIN client with this identity (if any).
    void add_node(const std::vector<uint8_t>& mac, std::string_view win_client_id = {},
                  const std::function<void(NODE_t&)>& change = {});
    // A bridge in the WIN server's table (which must not run).
    void add_bridge(std::string_view id, const std::vector<uint8_t>& mac, const char* ip, uint16_t port);

private:
    void* m_handle = nullptr;
    uint16_t m_terminal_port;
    uint16_t m_win_port;
};

// One TCP connection to the terminal port.
class operator_peer {
public:
    explicit operator_peer(uint16_t port, int receive_buffer = 0); // 0: the system's
    ~operator_peer();
    operator_peer(const operator_peer&) = delete;
    operator_peer& operator=(const operator_peer&) = delete;

    void write(std::string_view bytes);
    // What was received, up to and with `end`, or all that came within the time.
    std::string read_until(std::string_view end, int timeout_ms = 5000);
    // Sends the command and returns the answer, which ends with `end`.
    std::string ask(std::string_view command, std::string_view end);
    // Whether the gateway closes the connection in time; what came before stays readable.
    bool is_closed(int timeout_ms = 5000);
    void close();
    uint16_t port() const { return m_port; }

private:
    bool receive_more(int timeout_ms);

    int m_fd;
    uint16_t m_port; // our own
    bool m_closed = false;
    std::string m_received;
};

sockaddr_in ipv4_address(const char* ip, uint16_t port);

} // namespace rtls
