#include "support/terminal_fixture.h"

#include "link/win_clients.h"
#include "registry/nodes_container.h"
#include "rtls-gateway.h"
#include "server/win_server.h"
#include "terminal/terminal_server.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <stdexcept>
#include <thread>

namespace rtls {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

static int remaining_ms(steady_clock::time_point deadline)
{
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    return static_cast<int>(std::max<milliseconds::rep>(left.count(), 0));
}

static void require(bool condition, const char* what)
{
    if (!condition)
        throw std::runtime_error(std::string{what} + ": " + strerror(errno));
}

static sockaddr* generic(sockaddr_in& addr)
{
    return reinterpret_cast<sockaddr*>(&addr);
}

sockaddr_in ipv4_address(const char* ip, uint16_t port)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    require(inet_pton(AF_INET, ip, &addr.sin_addr) == 1, "inet_pton");
    return addr;
}

static uint16_t own_port(int fd)
{
    sockaddr_in addr{};
    socklen_t size = sizeof addr;
    require(getsockname(fd, generic(addr), &size) == 0, "getsockname");
    return ntohs(addr.sin_port);
}

// Below the range from which the system takes the ports of outgoing connections: another test's
// connection could get the port between our looking and our using it.
uint16_t free_tcp_port()
{
    static std::mt19937 random{std::random_device{}()};
    std::uniform_int_distribution<unsigned> ports{10'000, 30'000};
    for (;;) {
        const auto port = static_cast<uint16_t>(ports(random));
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        require(fd >= 0, "socket");
        sockaddr_in addr = ipv4_address("0.0.0.0", port);
        const bool is_free = bind(fd, generic(addr), sizeof addr) == 0;
        ::close(fd);
        if (is_free)
            return port;
    }
}

bool comes_true(const std::function<bool()>& condition, int timeout_ms)
{
    const auto deadline = steady_clock::now() + milliseconds(timeout_ms);
    while (!condition()) {
        if (steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(milliseconds(1));
    }
    return true;
}

void clear_stop_request()
{
    __atomic_store_n(&zsys_interrupted, 0, __ATOMIC_RELAXED);
}

// --- test_gateway

test_gateway::test_gateway() : m_terminal_port(free_tcp_port()), m_win_port(free_tcp_port())
{
    char name[] = "/tmp/terminal_fixtureXXXXXX";
    const int fd = mkstemp(name);
    require(fd >= 0, "mkstemp");
    dprintf(fd,
            "pidfile = /dev/null\nfirmware_files = 3\n"
            "ports\n    win = %u\n    discovery = %u\n    terminal = %u\n"
            "pub_sub_proxy\n    address = 127.0.0.1\n    port = %u\n    input_port = %u\n"
            "message_handler\n    address = 127.0.0.1\n    port = %u\n",
            m_win_port, free_tcp_port(), m_terminal_port, free_tcp_port(), free_tcp_port(), free_tcp_port());
    ::close(fd);
    m_handle = rtls_gateway_new(name);
    unlink(name);
    require(m_handle != nullptr, "rtls_gateway_new");
}

test_gateway::~test_gateway()
{
    stop();
    clear_stop_request();
}

void test_gateway::stop()
{
    rtls_gateway_destroy(&m_handle);
}

void* test_gateway::nodes() const
{
    return rtls_gateway_get_nodes_container(m_handle);
}

void test_gateway::run_terminal_server()
{
    void* server = rtls_gateway_get_terminal_server(m_handle);
    require(terminal_server_run(server), "terminal_server_run");
    require(comes_true([=] { return terminal_server_is_ready(server); }), "the terminal server is not ready");
}

void test_gateway::run_win_server()
{
    void* server = rtls_gateway_get_win_server(m_handle);
    require(win_server_run(server), "win_server_run");
    require(comes_true([=] { return win_server_is_ready(server); }), "the WIN server is not ready");
}

void test_gateway::add_node(const std::vector<uint8_t>& mac, std::string_view win_client_id,
                            const std::function<void(NODE_t&)>& change)
{
    const nodes_guard guard{nodes()};
    NODE_t* node = nodes_container_find_or_create_by_mac(nodes(), mac.data(), nullptr, 0);
    require(node != nullptr, "no node");
    node->lifetime = 300;
    if (!win_client_id.empty()) {
        const zframe_ptr id{zframe_new(win_client_id.data(), win_client_id.size())};
        node_update_win_client_ID(node, id.get());
    }
    if (change)
        change(*node);
}

void test_gateway::add_bridge(std::string_view id, const std::vector<uint8_t>& mac, const char* ip,
                              uint16_t port)
{
    const zframe_ptr frame{zframe_new(id.data(), id.size())};
    const zstr_ptr key{zframe_strhex(frame.get())};
    WIN_CLIENT_t* client = win_client_new(frame.get());
    require(client != nullptr, "win_client_new");
    client->addr = ipv4_address(ip, port);
    memcpy(client->mac_addr, mac.data(), mac_size);
    require(zhashx_insert(rtls_gateway_get_win_clients(m_handle), key.get(), client) == 0, "zhashx_insert");
}

// --- operator_peer

operator_peer::operator_peer(uint16_t port, int receive_buffer) : m_fd(socket(AF_INET, SOCK_STREAM, 0))
{
    require(m_fd >= 0, "socket");
    if (receive_buffer > 0)
        setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    sockaddr_in addr = ipv4_address("127.0.0.1", port);
    require(connect(m_fd, generic(addr), sizeof addr) == 0, "connect");
    m_port = own_port(m_fd);
}

operator_peer::~operator_peer()
{
    close();
}

void operator_peer::close()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

void operator_peer::write(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        require(sent > 0, "send");
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
}

bool operator_peer::receive_more(int timeout_ms)
{
    pollfd item{m_fd, POLLIN, 0};
    if (m_closed || poll(&item, 1, timeout_ms) != 1)
        return false;
    char bytes[65536];
    const ssize_t size = recv(m_fd, bytes, sizeof bytes, 0);
    m_closed = size <= 0;
    if (size > 0)
        m_received.append(bytes, static_cast<size_t>(size));
    return size > 0;
}

std::string operator_peer::read_until(std::string_view end, int timeout_ms)
{
    const auto deadline = steady_clock::now() + milliseconds(timeout_ms);
    size_t at = m_received.find(end);
    while (at == std::string::npos && receive_more(remaining_ms(deadline))) {
        const size_t from = m_received.size() > 70'000 ? m_received.size() - 70'000 : 0;
        at = m_received.find(end, from);
    }
    const size_t size = at == std::string::npos ? m_received.size() : at + end.size();
    std::string text = m_received.substr(0, size);
    m_received.erase(0, size);
    return text;
}

std::string operator_peer::ask(std::string_view command, std::string_view end)
{
    write(command);
    return read_until(end);
}

bool operator_peer::is_closed(int timeout_ms)
{
    const auto deadline = steady_clock::now() + milliseconds(timeout_ms);
    while (!m_closed && receive_more(remaining_ms(deadline))) {
    }
    return m_closed;
}

} // namespace rtls
