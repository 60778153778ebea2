// Requests that other threads hand to the WIN server, in as many parts as one likes: only a whole request for a
// known node goes out, once, to the bridge that reaches it, byte by byte as it came.
#include "downlink/generic_requests.h"
#include "fuzzing.h"
#include "registry/nodes_container.h"
#include "sent_parts.h"
#include "support/idle_gateway.h"
#include "wire/messaging.h"
#include "wire/slip.h"

#include <cerrno>

namespace rtls {

using fuzzing::bytes_t;
using fuzzing::require;

namespace {

constexpr uint8_t known_mac[mac_size] = {0xE4, 0, 0xF5, 0xF6, 0xF7, 6, 7, 8};
constexpr uint8_t address[ip_addr_size] = {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0xF5, 2, 3, 4, 5, 6, 7, 8};

namespace what {
constexpr unsigned other_command = 0x01; // the first part is the input's
constexpr unsigned more_parts = 0x02;
constexpr unsigned other_length = 0x04;
constexpr unsigned other_mac = 0x08;
constexpr unsigned forwarded_ip = 0x10;
constexpr unsigned direct_mask = 0x20;
constexpr unsigned only_command = 0x40;
constexpr unsigned is_long = 0x80;
} // namespace what

struct fuzzed_world : idle_gateway {
    zsock_ptr channel{zsock_new_router("@inproc://request_channel_fuzz")};
    zsock_ptr sender{zsock_new_push(">inproc://request_channel_fuzz")};

    fuzzed_world()
    {
        require(channel && sender);
        fuzzing::refuse_parts(zsock_resolve(server().win_sock.get()), EHOSTUNREACH); // all of it is cached
        debug_mask = 0xFFFF; // every line is formatted
    }

    void prepare_node(unsigned options)
    {
        const nodes_guard guard{*nodes()};
        NODE_t* node = nodes_container_find_or_create_by_mac(nodes(), known_mac, nullptr, 0);
        nodes_container_set_address(nodes(), node, address, (options & what::forwarded_ip) != 0);
        node->direct_mask = (options & what::direct_mask) != 0;
        node_update_win_client_ID(node, bridge().id);
    }
};

bytes_t request_of(unsigned options, fuzzing::input& input)
{
    const size_t size = (options & what::is_long) != 0 ? input.be16() % 1024 : input.u8() % 64;
    bytes_t request(msgHeader_t::size + size, input.u8());
    std::ranges::copy(input.view(request.size()), request.begin());
    store_be16(request, msgHeader_t::total_len,
               (options & what::other_length) != 0 ? input.be16() : static_cast<uint16_t>(size));
    request.insert(request.end(), std::begin(known_mac), std::end(known_mac));
    if ((options & what::other_mac) != 0)
        request[request.size() - 1 - input.u8() % mac_size] ^= 1;
    return request;
}

std::vector<bytes_t> parts_of(unsigned options, fuzzing::input& input)
{
    std::vector<bytes_t> parts{bytes_t(sizeof(int32_t))};
    if ((options & what::other_command) != 0)
        parts[0] = input.copy(input.u8() % 8);
    if ((options & what::more_parts) != 0)
        for (unsigned left = input.u8() % 4; left > 0; --left)
            parts.push_back(input.copy(input.u8()));
    if ((options & what::only_command) == 0)
        parts.push_back(request_of(options, input));
    return parts;
}

// The message that goes to the bridge, or nothing.
bytes_t expected_message(unsigned options, const std::vector<bytes_t>& parts)
{
    const bytes_t& command = parts.front();
    const bytes_t& request = parts.back();
    if (command.size() < sizeof(int32_t) || load_le32(command, 0) != 0)
        return {};
    if (request.size() < 13 || request.size() > 800 || load_be16(request, 3) + 13U != request.size())
        return {};
    const bytes_view mac = bytes_view{request}.last(mac_size);
    if (!std::ranges::equal(mac, known_mac))
        return {};
    bytes_t message;
    if ((options & what::forwarded_ip) != 0) {
        const size_t size = request.size() - mac_size;
        message = {0, static_cast<uint8_t>((options & what::direct_mask) != 0 ? 0x28 : 0x08), 0,
                   static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)};
        message.insert(message.end(), request.begin(), request.end());
    } else {
        message.assign(request.begin(), request.end() - mac_size);
    }
    message.insert(message.end(), std::begin(address), std::end(address));
    return message;
}

bytes_t framed(const bytes_t& message)
{
    bytes_t frame{slip_start};
    for (const uint8_t byte : message) {
        if (byte >= slip_start && byte <= slip_end)
            frame.push_back(slip_esc);
        frame.push_back(byte);
    }
    frame.push_back(slip_end);
    return frame;
}

void send(zsock_t* sender, const std::vector<bytes_t>& parts)
{
    zmsg_t* message = zmsg_new();
    for (const bytes_t& part : parts)
        zmsg_addmem(message, part.data(), part.size());
    require(zmsg_send(&message, sender) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static fuzzed_world world;
    fuzzing::input input{data, size};
    const unsigned options = input.u8();
    world.prepare_node(options);
    const auto parts = parts_of(options, input);
    send(world.sender.get(), parts);
    require(handle_interthread_sever_sock(nullptr, world.channel.get(), &world.server()) == 0);

    const bytes_t expected = expected_message(options, parts);
    unsent_queue& unsent = world.bridge().unsent_messages;
    require(unsent.empty() == expected.empty());
    if (!unsent.empty()) {
        require(std::ranges::equal(unsent.front(), framed(expected)));
        unsent.pop();
        require(unsent.empty());
    }
    fuzzing::sent_parts().clear(); // lines of the debug stream
    return 0;
}

} // namespace rtls
