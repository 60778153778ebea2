// win_server_private - the WIN server's record. It belongs to the server, and stands here because the link,
// what goes down and what comes up all work on it; "private" to the layers of the WIN server's thread.
//
// Ownership  The record owns what its fields hold. The actor opens its sockets, list and loop, and closes
//            them in the order that destroy_actor_context has, which peers see; the members' order does not
//            count. The services are the gateway's.
// Threads    All of it belongs to the actor's thread, except where a field says otherwise.
// Failures   A socket that is not open is null.
#pragma once

#include "base/bytes.h"
#include "base/common.h"
#include "base/czmq_ptr.h"
#include "base/door.h"
#include "base/memory_sum.h"
#include "base/own_addresses.h"
#include "base/rate_bound.h"
#include "link/client_table.h"
#include "link/closed_ids.h"
#include "services.h"

#include <czmq.h>
#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace rtls {

struct WIN_SERVER_t {
    services* rtls_gateway = nullptr; // what the gateway hands out
    lent<zactor_ptr> actor;           // owner's thread; null while not running
    in_port_t win_port = 0;           // host order
    in_port_t discovery_port = 0;
    door win_door{"WIN"};
    std::string discovery_address = "*";
    memory_sum unsent_total;     // of all clients' unsent messages
    memory_sum unfinished_total; // of all clients' frames at hand
    refusal_episode frames_given_up;
    client_table clients;
    gathered_answers answers;
    std::string proxy_full_address; // endpoints
    std::string proxy_full_input_address;
    std::string msg_handler_full_address;
    uint16_t rpl_prefix = 1;
    bool rpl_timer_is_active = false;
    bool unprocessed_MSG_PANID_REQ = false;
    bool flush_timer_is_active = false;
    std::atomic<bool> ready{false}; // set once by the actor, polled by the owner
    bool proxy_is_silent = false;
    lent<zsock_ptr> win_sock;
    lent<zsock_ptr> dbg_client_sock;
    lent<zsock_ptr> interthread_sever_sock;
    int discovery_sock_descriptor = -1;
    lent<zframe_list_ptr> unsent_messages; // created and drained; the clients' own lists carry the frames
    lent<zloop_ptr> actor_loop;
    lent<zsock_ptr> proxy_sock;
    lent<zsock_ptr> proxy_input_sock;
    lent<zsock_ptr> msg_handler_sock;

    own_addresses own;            // these four guard the discovery port
    rate_bound discovery_answers; // by requester
    refusal_episode own_datagrams;
    refusal_episode discovery_flood;

    int win_backlog = 0; // of the WIN port; 0: the library's default
    closed_id_set closed_ids;
    int64_t undrained_since = 0;    // zclock_usecs of the first event since it was drained; 0 while it is
    size_t undrained_bytes = 0;     // and what has been handled since then
    refusal_episode lines_left_out; // while it has not been drained for long
    refusal_episode house_full;     // no descriptors for more bridges
    int64_t last_win_event = 0;     // zclock_usecs of when the WIN port was last drained
    int64_t supervised_since = 0;   // zclock_mono of when the first period of the client checks began
    int64_t last_client_check = 0;  // number of the period in which clients were last checked

    // What becomes of a complete frame, which stands in client->pending_data; the server wires it.
    bool (*process_frame)(WIN_SERVER_t* server, WIN_CLIENT_t* client) = nullptr;

    // The services; null where there are none.
    NODES_CONTAINER_t* nodes() const { return rtls_gateway ? rtls_gateway->nodes : nullptr; }
    OTA_t* ota() const { return rtls_gateway ? rtls_gateway->ota : nullptr; }
};

} // namespace rtls
