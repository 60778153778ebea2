// win_server_private - the WIN server's record, and what its files call of each other.
//
// Threads    All of it belongs to the actor's thread, except where a field says otherwise.
#pragma once

#include "base/bytes.h"
#include "base/common.h"
#include "link/closed_ids.h"
#include "link/win_clients.h"
#include "server/win_server.h"
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

    // The services; null where there are none.
    NODES_CONTAINER_t* nodes() const { return rtls_gateway ? rtls_gateway->nodes : nullptr; }
    OTA_t* ota() const { return rtls_gateway ? rtls_gateway->ota : nullptr; }
};

// --- win_server.cpp
// The client with this identity as upper-case hex, or nullptr. Moves the table's one cursor.
WIN_CLIENT_t* win_server_find_client(WIN_SERVER_t* server, const char* key);
// Closes one client's connection and forgets the client. `client_id` may be the client's own.
void delete_win_client(WIN_SERVER_t* server, zframe_t* client_id);
// Takes over the MAC that the client's bridge gives itself; other threads see it whole (clients_mutex).
void win_client_set_mac_addr(WIN_SERVER_t* server, WIN_CLIENT_t* client, const uint8_t* mac);

// --- win_server_actor.cpp
// The actor's body: opens every socket, runs the loop, tears all down. Its end ends the gateway.
void win_server_actor(zsock_t* pipe, void* p_server) noexcept;
// Raises the interrupt flag and closes all that the actor opened.
void destroy_actor_context(WIN_SERVER_t* server);

// --- win_server_discovery.cpp, win_server_generic.cpp
int handle_udp_in(zloop_t* loop, zmq_pollitem_t* item, void* p_server) noexcept;
int handle_interthread_sever_sock(zloop_t* loop, zsock_t* reader, void* p_server) noexcept;
// Sends one generic request (header, payload, destination MAC) down the WIN client of its node. False
// when it was refused; true says nothing of the delivery.
bool generic_process(WIN_SERVER_t* server, const uint8_t* buf, size_t parsedlen);

// --- win_server_pub_sub_proxy.cpp
int handle_pub_sub_proxy(zloop_t* loop, zsock_t* reader, void* p_server) noexcept;
bool process_data_from_pub_sub_proxy(WIN_SERVER_t* server, uint8_t* data, size_t data_size);
bool spam_filter(void* p_nodes, const uint8_t* data, size_t data_size, timeval now);
bool firmware_interception(WIN_SERVER_t* server, const uint8_t* buf, size_t parsedlen);

// --- win_server_supervision.cpp
int check_client_connection(zloop_t* loop, int timer_id, void* p_server) noexcept;
int update_nodes_lifetime(zloop_t* loop, int timer_id, void* p_server) noexcept;
int check_proxy_connection(zloop_t* loop, int timer_id, void* p_server) noexcept;
int check_clients_unsent_messages(zloop_t* loop, int timer_id, void* p_server) noexcept;
// check_client_connection at the time `now` (zclock_mono).
int check_client_connection_at(WIN_SERVER_t* server, int64_t now);
// Sends the client's unsent messages, oldest first, until the socket takes no more.
void unsent_messages_to_win_client(WIN_SERVER_t* server, void* p_client);

// --- win_server_win_clients.cpp
int handle_win_clients(zloop_t* loop, zsock_t* reader, void* p_server) noexcept;
void parse_data_from_win_client(WIN_SERVER_t* server, WIN_CLIENT_t* client, const uint8_t* data, size_t size);
// Frames one message and sends or caches it, to one client or, with null, to every client. False when
// the client does not exist.
bool data_to_win_client(WIN_SERVER_t* server, zframe_t* client_id, const uint8_t* data, size_t size);
// Sends an encoded message to this client, after those that wait, or caches it. Does not look anything up
// in the table, so that a walk over it may deliver to each client.
void encoded_to_win_client(WIN_SERVER_t* server, WIN_CLIENT_t* client, bytes_view encoded);
// Sends bytes as they are to one client, without caching. False when they could not be sent.
bool esc_data_to_win_client(WIN_SERVER_t* server, zframe_t* client_id, const uint8_t* data, size_t size);
// Appends encoded bytes to the client's unsent messages. False when they are lost: memory is short or
// a limit of theirs is reached.
bool data_to_cache(WIN_SERVER_t* server, WIN_CLIENT_t* client, const uint8_t* data, size_t size);
void rpl_version_to_win_clients(WIN_SERVER_t* server);
int rpl_timer_handler(zloop_t* loop, int timer_id, void* p_server) noexcept;

// --- win_client_messages.cpp
// Interprets the complete frame in client->pending_data.
bool process_data_from_win_client(WIN_SERVER_t* server, WIN_CLIENT_t* client);

// --- upstream.cpp
void data_to_msg_handler(WIN_SERVER_t* server, const uint8_t* data, size_t size, uint32_t seconds,
                         uint16_t milliseconds);
void win_management_to_server(WIN_SERVER_t* server, const char* text);
bool processing_ul_tdoa(WIN_SERVER_t* server, bytes_view message, const uint8_t* node_mac);

// --- ota_pages.cpp
bool send_otapage_from_cache(WIN_SERVER_t* server, bytes_view message, const uint8_t* node_mac);

} // namespace rtls
