#include "server/discovery.h"

#include "base/logger.h"
#include "base/null_check.h"
#include "base/peer.h"
#include "net/udplib.h"
#include "wire/discovery_answers.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

namespace rtls {

static constexpr size_t receive_limit = 32; // longer datagrams are cut by the receive

namespace {

// A datagram as it came in.
struct discovery_datagram {
    std::array<uint8_t, receive_limit> bytes;
    size_t size;
    sockaddr_in requester;
    in_addr gateway; // the local address that it was sent to
};

enum class arrival : uint8_t { nothing, unusable, datagram };

} // namespace

// The local address out of the first packet information; none when it is missing or was cut off.
static std::optional<in_addr> local_address(msghdr& message)
{
    if ((message.msg_flags & MSG_CTRUNC) != 0)
        return std::nullopt;
    for (cmsghdr* item = CMSG_FIRSTHDR(&message); item; item = CMSG_NXTHDR(&message, item)) {
        if (item->cmsg_level != IPPROTO_IP || item->cmsg_type != IP_PKTINFO)
            continue;
        in_pktinfo info{};
        if (item->cmsg_len < CMSG_LEN(sizeof info))
            return std::nullopt;
        std::memcpy(&info, CMSG_DATA(item), sizeof info);
        // Not ipi_addr: for a broadcast that is no address to connect to.
        return info.ipi_spec_dst;
    }
    return std::nullopt;
}

// Unusable is what has no content, or does not say where it was sent to.
static arrival receive_datagram(int descriptor, discovery_datagram& datagram)
{
    alignas(cmsghdr) std::array<uint8_t, 256> control{};
    iovec data{datagram.bytes.data(), datagram.bytes.size()};
    msghdr message{};
    message.msg_name = &datagram.requester;
    message.msg_namelen = sizeof datagram.requester;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();

    const ssize_t received = udp_recvmsg(descriptor, &message);
    // The system writes down who sent it, if he sent nothing, too; of a failure there is no sender.
    if (message.msg_namelen < sizeof datagram.requester || datagram.requester.sin_family != AF_INET)
        return arrival::nothing;
    datagram.size = std::min(static_cast<size_t>(received), datagram.bytes.size());
    const std::optional<in_addr> gateway = local_address(message);
    datagram.gateway = gateway.value_or(in_addr{});
    return received > 0 && gateway ? arrival::datagram : arrival::unusable;
}

static void print_requester(const WIN_SERVER_t* server, const sockaddr_in& requester)
{
    if (!dbg_is_wanted(DBG_DISCOVERY))
        return;
    const unsigned int port = ntohs(requester.sin_port);
    dbg_print(server->dbg_client_sock, DBG_DISCOVERY, "DISC", "rcvd discovery: %s:%u",
              ipv4_text{requester}.c_str(), port);
}

// Whether the datagram claims to come from our own discovery port.
static bool is_our_own(WIN_SERVER_t& server, const sockaddr_in& requester)
{
    if (ntohs(requester.sin_port) != server.discovery_port)
        return false;
    const int64_t now = zclock_mono();
    if (!server.own.contain(requester.sin_addr, now))
        return false;
    server.counts.discovery[discovery_outcome::own].add();
    if (server.own_datagrams.begins(now))
        logger_error(g_logger, "discovery: requests from our own port at %s are not answered!",
                     ipv4_text{requester}.c_str());
    return true;
}

static bool may_answer(WIN_SERVER_t& server, const sockaddr_in& requester)
{
    const int64_t now = zclock_mono();
    if (server.discovery_answers.allows(requester.sin_addr, now))
        return true;
    server.counts.discovery[discovery_outcome::flood].add();
    if (server.discovery_flood.begins(now))
        logger_error(g_logger, "discovery: more than %u requests a second from %s are not answered!",
                     rate_bound::answers_a_second, ipv4_text{requester}.c_str());
    return false;
}

// An answer to a neighbour that nobody is waits for seconds in the system, and takes room of the socket's
// meanwhile: whoever forges a few such addresses fills it.
static void send_answer(WIN_SERVER_t& server, const sockaddr_in& requester, bytes_view answer)
{
    if (!may_answer(server, requester))
        return;
    const bool is_sent = udp_sendto(server.discovery_sock_descriptor, answer.data(), answer.size(),
                                    &requester, sizeof requester);
    const bool is_full = !is_sent && errno == EAGAIN;
    server.counts.discovery[is_sent ? discovery_outcome::answered : discovery_outcome::not_sent].add();
    if (is_full && server.unsent_answers.begins(zclock_mono()))
        logger_error(g_logger, "discovery: no room for answers, as for %s: not sent!",
                     ipv4_text{requester}.c_str());
}

static void answer_datagram(WIN_SERVER_t* server, const discovery_datagram& datagram)
{
    const auto send = [&](bytes_view answer) { send_answer(*server, datagram.requester, answer); };
    // The size comes first: an address echo has no command byte.
    if (datagram.size == discovery_echo::request_size)
        return send(discovery_echo_answer(datagram.requester.sin_addr, server->win_port));

    const unsigned int command = datagram.bytes[discovery_address::command];
    if (command != DSC_CMD_REQUEST_ADDRESS || datagram.size != discovery_address::request_size)
        server->counts.discovery[discovery_outcome::malformed].add();
    if (command != DSC_CMD_REQUEST_ADDRESS) {
        dbg_print(server->dbg_client_sock, DBG_DISCOVERY, "DISC", "unknown discovery command: %u", command);
        return;
    }
    if (datagram.size != discovery_address::request_size) {
        dbg_print(server->dbg_client_sock, DBG_DISCOVERY, "DISC", "Invalid size of DSC_CMD_REQUEST_ADDRESS");
        return;
    }
    send(discovery_address_answer(datagram.bytes, datagram.gateway, server->win_port));
}

int handle_udp_in(zloop_t* /*loop*/, zmq_pollitem_t* /*item*/, void* p_server) noexcept
{
    if (any_null(__func__, p_server))
        return 0;
    auto* server = static_cast<WIN_SERVER_t*>(p_server);
    discovery_datagram datagram{};
    const arrival what = receive_datagram(server->discovery_sock_descriptor, datagram);
    if (what == arrival::unusable)
        server->counts.discovery[discovery_outcome::malformed].add();
    if (what != arrival::datagram)
        return 0;
    print_requester(server, datagram.requester);
    if (!is_our_own(*server, datagram.requester))
        answer_datagram(server, datagram);
    return 0;
}

} // namespace rtls
