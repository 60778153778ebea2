#include "rtls-tail/segment.h"

#include "recording/capture.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>

namespace tail {

using rtls::bytes_view;
using rtls::load_be16;
using rtls::load_be32;
namespace link_type = rtls::recording::link_type;

namespace ether_type {
constexpr uint16_t ipv4 = 0x0800;
constexpr uint16_t ipv6 = 0x86DD;
constexpr uint16_t vlan = 0x8100;
constexpr uint16_t outer_vlan = 0x88A8;
} // namespace ether_type

namespace ipv4_at {
constexpr size_t length = 2; // u16, of the whole packet
constexpr size_t fragment = 6;
constexpr size_t protocol = 9;
constexpr size_t source = 12;
constexpr size_t target = 16;
constexpr size_t size = 20;             // without options
constexpr uint16_t fragmented = 0x3FFF; // more follow, or it is not the first
} // namespace ipv4_at

namespace ipv6_at {
constexpr size_t length = 4; // u16, of what follows
constexpr size_t next = 6;
constexpr size_t source = 8;
constexpr size_t target = 24;
constexpr size_t size = 40;
} // namespace ipv6_at

namespace tcp_at {
constexpr size_t source = 0;
constexpr size_t target = 2;
constexpr size_t sequence = 4;
constexpr size_t size_of_head = 12; // in words of 4 bytes, in the upper half
constexpr size_t flags = 13;
constexpr size_t size = 20; // without options
constexpr uint8_t syn = 0x02;
} // namespace tcp_at

namespace ip_protocol {
constexpr uint8_t hop_by_hop = 0;
constexpr uint8_t tcp = 6;
constexpr uint8_t routing = 43;
constexpr uint8_t destination = 60;
} // namespace ip_protocol

static constexpr std::array<uint8_t, 12> mapped_ipv4{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};

std::string text_of(const tcp_end& end)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    const bool is_ipv4 = std::ranges::equal(bytes_view{end.address}.first(mapped_ipv4.size()), mapped_ipv4);
    ::inet_ntop(is_ipv4 ? AF_INET : AF_INET6, end.address.data() + (is_ipv4 ? mapped_ipv4.size() : 0),
                text.data(), static_cast<socklen_t>(text.size()));
    return is_ipv4 ? fmt::format("{}:{}", text.data(), end.port)
                   : fmt::format("[{}]:{}", text.data(), end.port);
}

static bytes_view behind(bytes_view bytes, size_t size)
{
    return bytes.subspan(std::min(size, bytes.size()));
}

// A length that is 0 was left to the network card.
static bytes_view cut_to(bytes_view bytes, size_t length)
{
    return length == 0 ? bytes : bytes.first(std::min(length, bytes.size()));
}

static std::optional<tcp_segment> tcp_in(bytes_view bytes, tcp_segment it)
{
    if (bytes.size() < tcp_at::size)
        return std::nullopt;
    const size_t head = size_t{4} * (bytes[tcp_at::size_of_head] >> 4);
    if (head < tcp_at::size || head > bytes.size())
        return std::nullopt;
    it.from.port = load_be16(bytes, tcp_at::source);
    it.to.port = load_be16(bytes, tcp_at::target);
    it.sequence = load_be32(bytes, tcp_at::sequence);
    it.is_begin = (bytes[tcp_at::flags] & tcp_at::syn) != 0;
    it.payload = bytes.subspan(head);
    return it;
}

static tcp_end ipv4_end(bytes_view address)
{
    tcp_end end;
    rtls::store_bytes(end.address, 0, mapped_ipv4);
    rtls::store_bytes(end.address, mapped_ipv4.size(), address);
    return end;
}

static std::optional<tcp_segment> ipv4_in(bytes_view bytes)
{
    if (bytes.size() < ipv4_at::size)
        return std::nullopt;
    const size_t head = size_t{4} * (bytes[0] & 0x0F);
    const bool is_fragment = (load_be16(bytes, ipv4_at::fragment) & ipv4_at::fragmented) != 0;
    if (head < ipv4_at::size || is_fragment || bytes[ipv4_at::protocol] != ip_protocol::tcp)
        return std::nullopt;
    tcp_segment it;
    it.from = ipv4_end(bytes.subspan(ipv4_at::source, 4));
    it.to = ipv4_end(bytes.subspan(ipv4_at::target, 4));
    return tcp_in(behind(cut_to(bytes, load_be16(bytes, ipv4_at::length)), head), it);
}

// Behind the headers that may stand in front of TCP's; nothing when there is another one.
static bytes_view behind_extensions(uint8_t next, bytes_view bytes)
{
    using namespace ip_protocol;
    while (next == hop_by_hop || next == routing || next == destination) {
        if (bytes.size() < 8)
            return {};
        next = bytes[0];
        bytes = behind(bytes, size_t{8} * (bytes[1] + 1U));
    }
    return next == tcp ? bytes : bytes_view{};
}

static std::optional<tcp_segment> ipv6_in(bytes_view bytes)
{
    if (bytes.size() < ipv6_at::size)
        return std::nullopt;
    tcp_segment it;
    rtls::store_bytes(it.from.address, 0, bytes.subspan(ipv6_at::source, 16));
    rtls::store_bytes(it.to.address, 0, bytes.subspan(ipv6_at::target, 16));
    const bytes_view rest = cut_to(bytes.subspan(ipv6_at::size), load_be16(bytes, ipv6_at::length));
    return tcp_in(behind_extensions(bytes[ipv6_at::next], rest), it);
}

// Which one it is stands in front.
static std::optional<tcp_segment> ip_in(bytes_view bytes)
{
    const unsigned version = bytes.empty() ? 0 : bytes[0] >> 4;
    return version == 4 ? ipv4_in(bytes) : version == 6 ? ipv6_in(bytes) : std::nullopt;
}

// `type_at`: where the packet says what follows; behind it, tags of networks may stand.
static std::optional<tcp_segment> typed_in(bytes_view bytes, size_t type_at, size_t head)
{
    while (bytes.size() >= std::max(head, type_at + 2)) {
        const uint16_t type = load_be16(bytes, type_at);
        bytes = bytes.subspan(head);
        if (type == ether_type::ipv4 || type == ether_type::ipv6)
            return ip_in(bytes);
        if (type != ether_type::vlan && type != ether_type::outer_vlan)
            return std::nullopt;
        type_at = 2;
        head = 4;
    }
    return std::nullopt;
}

std::optional<tcp_segment> segment_in(uint16_t link, bytes_view packet)
{
    switch (link) {
    case link_type::ethernet:
        return typed_in(packet, 12, 14);
    case link_type::cooked:
        return typed_in(packet, 14, 16);
    case link_type::cooked_2:
        return typed_in(packet, 0, 20);
    case link_type::loopback:
    case link_type::loopback_openbsd:
        return ip_in(behind(packet, 4));
    case link_type::raw_ip:
    case link_type::ipv4:
    case link_type::ipv6:
        return ip_in(packet);
    default:
        return std::nullopt;
    }
}

} // namespace tail
