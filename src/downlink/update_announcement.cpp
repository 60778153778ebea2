#include "downlink/update_announcement.h"

#include "base/null_check.h"
#include "base/peer.h"
#include "link/sending.h"
#include "link/win_server_private.h"
#include "wire/messaging.h"
#include "wire/slip.h"

#include <array>

namespace rtls {

// The command's type is little-endian, as all that bridges are sent.
static std::array<uint8_t, msgGeneric_t::size> update_command()
{
    std::array<uint8_t, msgGeneric_t::size> message{};
    store_le16(message, msgGeneric_t::msgType, MSG_UPDATE_CMD);
    return message;
}

void update_command_to_all(WIN_SERVER_t& server)
{
    const auto message = update_command();
    std::array<uint8_t, slip_encoded_limit(msgGeneric_t::size)> encoded{};
    const bytes_view frame{encoded.data(), slip_encode(message, encoded.data())};
    server.clients.for_each([&](WIN_CLIENT_t& client) {
        client.firmware_updated = false;
        encoded_to_win_client(&server, &client, frame);
        dbg_print(server.dbg_client_sock, DBG_PARSING, "UPDATE",
                  "send cmd: MSG_UPDATE_CMD to brige: %s", // sic
                  ipv4_text{client.addr}.c_str());
    });
}

void win_server_nodes_update(void* p_win_server, zframe_t* client_id)
{
    auto* server = static_cast<WIN_SERVER_t*>(p_win_server);
    if (any_null(__func__, server))
        return;
    if (!client_id) {
        update_command_to_all(*server);
        return;
    }
    const auto message = update_command();
    data_to_win_client(server, client_id, message.data(), message.size());
    dbg_print(server->dbg_client_sock, DBG_PARSING, "UPDATE", "send cmd: MSG_UPDATE_CMD to current node");
}

} // namespace rtls
