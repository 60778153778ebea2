#include "downlink/generic_requests.h"

#include "base/czmq_ptr.h"
#include "base/endpoints.h"
#include "base/null_check.h"
#include "downlink/node_delivery.h"

#include <array>
#include <cstring>

namespace rtls {

static constexpr size_t generic_request_min = msgHeader_t::size;
static constexpr size_t generic_request_max = 800; // the MAC included
// The longest message, without the MAC, in its longest form: 800 + 21 bytes.
static constexpr size_t generic_frame_max = generic_request_max - mac_size + node_request_overhead;

static command_outcome forward_to_node(WIN_SERVER_t& server, const node_route& route, bytes_view message,
                                       bytes_view mac, WIN_CLIENT_t* asking)
{
    std::array<uint8_t, generic_frame_max> frame; // not cleared: the builder writes every byte that is sent
    const size_t size = node_request_frame(frame, route, message, mac);
    return send_to_node(&server, route, bytes_view{frame}.first(size), asking);
}

command_outcome forward_generic(WIN_SERVER_t& server, bytes_view request, WIN_CLIENT_t* asking)
{
    looked_up_node node;
    return forward_generic(server, request, node, asking);
}

command_outcome forward_generic(WIN_SERVER_t& server, bytes_view request, looked_up_node& node,
                                WIN_CLIENT_t* asking)
{
    zsock_t* dbg = server.dbg_client_sock;
    const size_t parsedlen = request.size();
    if (parsedlen < generic_request_min) {
        dbg_print(dbg, DBG_PARSING, "GENERIC", "ERROR(GENERIC): msb too short, rcvd: %lu", parsedlen); // sic
        return command_outcome::malformed;
    }
    if (parsedlen > generic_request_max) {
        dbg_print(dbg, DBG_PARSING, "GENERIC", "ERROR(GENERIC): msg too long, rcvd: %lu", parsedlen);
        return command_outcome::malformed;
    }
    const size_t payload_len = load_be16(request, msgHeader_t::total_len) + msgHeader_t::size;
    if (parsedlen != payload_len + mac_size) {
        dbg_print(dbg, DBG_PARSING, "GENERIC", "ERROR(GENERIC): wrong size rcvd: %d, expected %ld",
                  static_cast<uint16_t>(parsedlen), static_cast<long>(payload_len + mac_size));
        return command_outcome::malformed;
    }
    const bytes_view message = request.first(payload_len);
    const bytes_view mac = request.last(mac_size);
    dbg_print(dbg, DBG_PARSING, "GENERIC", "INFO(GENERIC): dst %02X%02X", mac[6], mac[7]);
    if (const node_route* route = find_route(&server, mac, node))
        return forward_to_node(server, *route, message, mac, asking);
    dbg_print(dbg, DBG_PARSING, "GENERIC", "ERROR(GENERIC): dst %02X%02X%02X%02X%02X%02X%02X%02X not found",
              mac[0], mac[1], mac[2], mac[3], mac[4], mac[5], mac[6], mac[7]);
    return command_outcome::node_not_found;
}

bool was_forwarded(command_outcome outcome) noexcept
{
    return outcome != command_outcome::malformed && outcome != command_outcome::node_not_found;
}

bool generic_process(WIN_SERVER_t* server, const uint8_t* buf, size_t parsedlen, WIN_CLIENT_t* asking)
{
    if (any_null(__func__, server, buf))
        return false;
    return was_forwarded(forward_generic(*server, {buf, parsedlen}, asking));
}

// A command frame that is too short is no command.
static bool is_generic_request(zframe_t* command)
{
    int32_t value = 0;
    if (zframe_size(command) < sizeof value)
        return false;
    std::memcpy(&value, zframe_data(command), sizeof value);
    return value == WINSERW_SOCK_CMD_GENERIC_REQ;
}

int handle_interthread_sever_sock(zloop_t* /*loop*/, zsock_t* reader, void* p_server) noexcept
{
    if (any_null(__func__, reader, p_server))
        return 0;
    const zmsg_ptr message{zmsg_recv(reader)};
    if (!message)
        return -1;
    zmsg_first(message.get()); // the router's identity of the sender
    zframe_t* command = zmsg_next(message.get());
    if (!command) {
        log_call_error(__func__, "zmsg_pop");
        return 0;
    }
    if (!is_generic_request(command))
        return 0;
    // The data is the last frame. Without any, that is the command, which is refused as too short.
    zframe_t* data = zmsg_last(message.get());
    if (!data) {
        log_call_error(__func__, "zmsg_new"); // sic: log filters know it by this name
        return 0;
    }
    auto* server = static_cast<WIN_SERVER_t*>(p_server);
    server->counts.note(command_type::of_operator,
                        forward_generic(*server, {zframe_data(data), zframe_size(data)}));
    return 0;
}

} // namespace rtls
