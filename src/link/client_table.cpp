#include "base/null_check.h"
#include "base/peer.h"
#include "link/win_server_private.h"

#include <cstring>
#include <mutex>

namespace rtls {

WIN_CLIENT_t* win_server_find_client(WIN_SERVER_t* server, const char* key)
{
    if (any_null(__func__, server, key))
        return nullptr;
    // Only the actor deletes clients, so that what is found outlives the lock.
    const std::lock_guard guard{server->clients_mutex};
    return static_cast<WIN_CLIENT_t*>(zhashx_lookup(server->clients, key));
}

void win_client_set_mac_addr(WIN_SERVER_t* server, WIN_CLIENT_t* client, const uint8_t* mac)
{
    if (any_null(__func__, server, client, mac))
        return;
    const std::lock_guard guard{server->clients_mutex};
    std::memcpy(client->mac_addr, mac, mac_size);
}

} // namespace rtls
