// win_server_private - the WIN server's record.
//
// Threads    All of it belongs to the actor's thread, except where a field says otherwise.
#pragma once

#include "base/bytes.h"
#include "base/common.h"
#include "link/closed_ids.h"
#include "link/win_clients.h"
#include "services.h"

#include <czmq.h>
#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>

namespace rtls {

struct WIN_SERVER_t {
    services* rtls_gateway = nullptr; // what the gateway hands out
    zactor_t* actor = nullptr;        // owner's thread; null while not running
    in_port_t win_port = 0;           // host order
    in_port_t discovery_port = 0;
    zhashx_t* clients = nullptr;        // owned WIN_CLIENT_t by identity; see clients_mutex
    char* proxy_full_address = nullptr; // owned endpoint texts
    char* proxy_full_input_address = nullptr;
    char* msg_handler_full_address = nullptr;
    uint16_t rpl_prefix = 1;
    bool rpl_timer_is_active = false;
    bool unprocessed_MSG_PANID_REQ = false;
    std::atomic<bool> ready{false}; // set once by the actor, polled by the owner
    bool proxy_is_silent = false;
    zsock_t* win_sock = nullptr;
    zsock_t* dbg_client_sock = nullptr;
    zsock_t* interthread_sever_sock = nullptr;
    int discovery_sock_descriptor = -1;
    zlist_t* unsent_messages = nullptr; // created and drained; the clients' own lists carry the frames
    zloop_t* actor_loop = nullptr;
    zsock_t* proxy_sock = nullptr;
    zsock_t* proxy_input_sock = nullptr;
    zsock_t* msg_handler_sock = nullptr;

    int win_backlog = 0; // of the WIN port; 0: the library's default
    // Other threads copy the table (win_server_copy_clients). The actor holds this around insert, delete,
    // look-ups (one that meets a long chain moves the whole table to new buckets) and writes of mac_addr;
    // not around its walks and what it reads of a record. Where both are held, the nodes container's lock
    // is the outer one.
    std::mutex clients_mutex;
    closed_id_set closed_ids;
    int64_t last_win_event = 0;               // zclock_usecs of when the WIN port was last drained
    std::optional<int64_t> last_client_check; // zclock_mono of the last client check

    // What becomes of a complete frame, which stands in client->pending_data; the server wires it.
    bool (*process_frame)(WIN_SERVER_t* server, WIN_CLIENT_t* client) = nullptr;

    // The services; null where there are none.
    NODES_CONTAINER_t* nodes() const { return rtls_gateway ? rtls_gateway->nodes : nullptr; }
    OTA_t* ota() const { return rtls_gateway ? rtls_gateway->ota : nullptr; }
};

// The client with this identity as upper-case hex, or nullptr. Moves the table's one cursor.
WIN_CLIENT_t* win_server_find_client(WIN_SERVER_t* server, const char* key);
// Takes over the MAC that the client's bridge gives itself; other threads see it whole (clients_mutex).
void win_client_set_mac_addr(WIN_SERVER_t* server, WIN_CLIENT_t* client, const uint8_t* mac);

} // namespace rtls
