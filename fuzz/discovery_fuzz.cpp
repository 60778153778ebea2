// Datagrams at the discovery port, with whatever sender and local address the system may report: what is answered,
// to whom, with what; that nobody gets more than his share; and that nothing from our own port is answered.
#include "fuzzing.h"
#include "server/discovery.h"
#include "wire/messaging.h"

#include <sys/socket.h>

#include <array>
#include <cstring>

namespace rtls {

using fuzzing::require;

namespace {

constexpr in_port_t win_port = 0x0FA1;
constexpr in_port_t discovery_port = 0x0FA2;
constexpr size_t most_answers = 100;
constexpr size_t longest_read = 32;

namespace what {
constexpr unsigned flood = 0x01;
constexpr unsigned no_local_address = 0x02;
constexpr unsigned control_is_cut = 0x04;
constexpr unsigned other_control_first = 0x08;
constexpr unsigned short_sender = 0x10;
constexpr unsigned own_port = 0x20;
constexpr unsigned from_here = 0x40;
constexpr unsigned short_local_address = 0x80;
} // namespace what

// What the system reports, and what was sent.
struct played_system {
    unsigned options = 0;
    sockaddr_in sender{};
    in_addr local{};
    std::vector<uint8_t> datagram;
    std::vector<std::vector<uint8_t>> answers;
};
played_system the_system;

// Puts one piece of control data behind those that are there.
void add_control(msghdr& message, size_t& used, int type, const void* data, size_t size)
{
    cmsghdr head{};
    head.cmsg_level = IPPROTO_IP;
    head.cmsg_type = type;
    head.cmsg_len = CMSG_LEN(size);
    require(used + CMSG_SPACE(size) <= message.msg_controllen);
    auto* at = static_cast<uint8_t*>(message.msg_control) + used;
    std::memcpy(at, &head, sizeof head);
    std::memcpy(at + CMSG_LEN(0), data, size);
    used += CMSG_SPACE(size);
}

void report_control(msghdr& message)
{
    const unsigned options = the_system.options;
    size_t used = 0;
    const int ttl = 64;
    in_pktinfo info{};
    info.ipi_spec_dst = the_system.local;
    info.ipi_addr.s_addr = INADDR_BROADCAST;
    if ((options & what::other_control_first) != 0)
        add_control(message, used, IP_TTL, &ttl, sizeof ttl);
    if ((options & what::no_local_address) == 0)
        add_control(message, used, IP_PKTINFO, &info,
                    (options & what::short_local_address) != 0 ? 4 : sizeof info);
    message.msg_controllen = used;
    message.msg_flags = (options & what::control_is_cut) != 0 ? MSG_CTRUNC : 0;
}

bool is_understood()
{
    return (the_system.options & (what::no_local_address | what::control_is_cut | what::short_sender |
                                  what::short_local_address)) == 0 &&
           !the_system.datagram.empty();
}

void append_be(std::vector<uint8_t>& to, in_addr address, in_port_t port)
{
    const auto* bytes = reinterpret_cast<const uint8_t*>(&address.s_addr);
    to.insert(to.end(), bytes, bytes + 4);
    to.push_back(static_cast<uint8_t>(port >> 8));
    to.push_back(static_cast<uint8_t>(port));
}

// The answer, or nothing.
std::vector<uint8_t> expected_answer()
{
    std::vector<uint8_t> answer;
    const size_t size = std::min(the_system.datagram.size(), longest_read);
    if (size == 6) {
        append_be(answer, the_system.sender.sin_addr, win_port);
    } else if (size == 9 && the_system.datagram[0] == 1) {
        answer = the_system.datagram;
        append_be(answer, the_system.local, win_port);
    }
    return answer;
}

bool is_our_own()
{
    return (the_system.options & (what::own_port | what::from_here)) == (what::own_port | what::from_here);
}

void take_input(fuzzing::input& input)
{
    the_system.options = input.u8();
    the_system.sender.sin_family = AF_INET;
    the_system.sender.sin_port =
        htons((the_system.options & what::own_port) != 0 ? discovery_port : input.be16());
    // 240.0.0.0/4 is no host's, 127.0.0.0/8 is every host's own.
    const uint32_t net = (the_system.options & what::from_here) != 0 ? 0x7F000000 : 0xF0000000;
    the_system.sender.sin_addr.s_addr = htonl(net | (input.be32() & 0x00FFFFFF));
    the_system.local.s_addr = input.be32();
    the_system.datagram = input.copy(2 * longest_read);
    the_system.answers.clear();
}

} // namespace

extern "C" ssize_t __wrap_recvmsg(int /*descriptor*/, msghdr* message, int /*flags*/)
{
    const size_t received = std::min(the_system.datagram.size(), message->msg_iov->iov_len);
    require(message->msg_iov->iov_len == longest_read && message->msg_namelen == sizeof the_system.sender);
    if (received > 0)
        std::memcpy(message->msg_iov->iov_base, the_system.datagram.data(), received);
    std::memcpy(message->msg_name, &the_system.sender, sizeof the_system.sender);
    if ((the_system.options & what::short_sender) != 0)
        message->msg_namelen = sizeof the_system.sender / 2;
    report_control(*message);
    return static_cast<ssize_t>(received);
}

extern "C" ssize_t __wrap_sendto(int /*descriptor*/, const void* bytes, size_t size, int /*flags*/,
                                 const sockaddr* to, socklen_t to_size)
{
    require(to_size == sizeof the_system.sender && std::memcmp(to, &the_system.sender, to_size) == 0);
    const auto* begin = static_cast<const uint8_t*>(bytes);
    the_system.answers.emplace_back(begin, begin + size);
    return static_cast<ssize_t>(size);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static WIN_SERVER_t server;
    debug_mask = 0xFFFF; // every line is formatted
    server.win_port = win_port;
    server.discovery_port = discovery_port;
    server.discovery_sock_descriptor = 0; // never reached
    server.discovery_answers = rate_bound{0};
    fuzzing::input input{data, size};
    take_input(input);
    const size_t times = (the_system.options & what::flood) != 0 ? most_answers + 1 : 1;
    for (size_t i = 0; i < times; ++i)
        require(handle_udp_in(nullptr, nullptr, &server) == 0);

    const auto expected = expected_answer();
    const bool is_answered = is_understood() && !is_our_own() && !expected.empty();
    require(the_system.answers.size() == (is_answered ? std::min(times, most_answers) : 0));
    for (const auto& answer : the_system.answers)
        require(answer == expected);
    return 0;
}

} // namespace rtls
