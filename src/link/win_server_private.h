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
#include "base/call_queue.h"
#include "base/common.h"
#include "base/czmq_ptr.h"
#include "base/loop_pulse.h"
#include "base/memory_sum.h"
#include "base/rate_bound.h"
#include "link/client_table.h"
#include "link/closed_ids.h"
#include "link/gathered_answers.h"
#include "link/upstream_queue.h"
#include "link/win_counters.h"
#include "net/connection_cut.h"
#include "net/curve.h"
#include "net/descriptors.h"
#include "net/door.h"
#include "net/link_watch.h"
#include "net/own_addresses.h"
#include "services.h"
#include "tap/tap_socket.h"

#include <czmq.h>
#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

namespace rtls {

struct WIN_SERVER_t {
    services* rtls_gateway = nullptr; // what the gateway hands out
    lent<zactor_ptr> actor;           // owner's thread; null while not running
    in_port_t win_port = 0;           // host order
    in_port_t discovery_port = 0;
    door win_door{"WIN"};
    full_house house{"bridges"};
    std::string discovery_address = "*";
    curve_certificates certificates; // of the links upstream
    memory_sum unsent_total;         // of all clients' unsent messages
    int64_t no_room_at = -1;         // zclock_mono of when the largest holder was last refused more
    size_t refused_holding = 0;      // and the memory of what waited for it
    memory_sum unfinished_total;     // of all clients' frames at hand
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
    size_t next_flush = 0; // position in the table from which unsent messages are offered
    bool end_timer_is_active = false;
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
    link_watch proxy_link{"proxy"}; // of these three; their states are read by any thread
    link_watch proxy_input_link{"proxy input"};
    link_watch msg_handler_link{"message handler"};
    upstream_queue to_handler{"Overflow message handler queue!", "Exemption message handler queue!",
                              "message handler queue", "data_to_msg_handler", "zframe_send"};
    upstream_queue to_proxy_input{"Overflow proxy input queue!", "Exemption proxy input queue!",
                                  "proxy input queue", "win_management_to_server",
                                  "zstr_send (proxy_input_sock)"};
    std::shared_ptr<call_queue> calls;  // by other threads; null while no actor runs
    call_queue_slot calls_of_strangers; // the same, for threads that the actor does not know
    bool intake_is_paused = false;      // the WIN port is not read, while one of these waits
    bool tap_knows_start =
        false; // what the subscribers of its events have been told, of what they are told once
    bool tap_knows_handler_overflow = false;
    bool tap_knows_proxy_input_overflow = false;
    bool tap_follows_expiry = false; // somebody is told of nodes that expire

    own_addresses own;            // these five guard the discovery port
    rate_bound discovery_answers; // by requester
    refusal_episode own_datagrams;
    refusal_episode discovery_flood;
    refusal_episode unsent_answers;

    int win_backlog = 0; // of the WIN port; 0: the library's default
    closed_id_set closed_ids;
    connection_cuts cuts;                                // of closed connections whose queue is full
    uint64_t end_checks = 0;                             // how often silent bridges have been looked for
    size_t next_end_check = 0;                           // position in the table to look from
    std::unordered_map<int, std::string> number_holders; // the last connection with a descriptor's number
    int64_t undrained_since = 0;     // zclock_usecs of the first event since it was drained; 0 while it is
    size_t undrained_bytes = 0;      // and what has been handled since then
    int64_t undrained_cost_from = 0; // the thread's processor time, in us, at the first large event; 0: none
    refusal_episode lines_left_out;  // while it has not been drained for long
    int64_t supervised_since = 0;    // zclock_mono of when the first period of the client checks began
    int64_t last_client_check = 0;   // number of the period in which clients were last checked

    win_counters counts; // read by any thread, like the pulse
    loop_pulse pulse;
    tap_socket tap;
    int64_t hand_overs_noted_at = 0; // zclock_usecs of the last look for what has been handed over upstream
    uint64_t hand_overs_noted = 0;   // and how much had been

    // When the bytes came that are being read: that of all their messages. None: nothing is being read.
    std::optional<tav_timestamp_t> event_time;

    // What becomes of a complete frame, which stands in client->pending_data; the server wires it.
    bool (*process_frame)(WIN_SERVER_t* server, WIN_CLIENT_t* client) = nullptr;

    // The services; null where there are none.
    NODES_CONTAINER_t* nodes() const { return rtls_gateway ? rtls_gateway->nodes : nullptr; }
    OTA_t* ota() const { return rtls_gateway ? rtls_gateway->ota : nullptr; }
};

} // namespace rtls
