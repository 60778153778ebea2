#include "wire/discovery_answers.h"

namespace rtls {

std::array<uint8_t, discovery_echo::size> discovery_echo_answer(in_addr requester, in_port_t win_port)
{
    std::array<uint8_t, discovery_echo::size> answer{};
    store_be32(answer, discovery_echo::address, ntohl(requester.s_addr));
    store_be16(answer, discovery_echo::port, win_port);
    return answer;
}

std::array<uint8_t, discovery_address::size> discovery_address_answer(bytes_view request, in_addr gateway,
                                                                      in_port_t win_port)
{
    std::array<uint8_t, discovery_address::size> answer{};
    store_bytes(answer, 0, request.first(discovery_address::request_size));
    store_be32(answer, discovery_address::address, ntohl(gateway.s_addr));
    store_be16(answer, discovery_address::port, win_port);
    return answer;
}

} // namespace rtls
