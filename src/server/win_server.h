// win_server - the actor that speaks with the node network and with the servers upstream.
//
// Ownership  The gateway object owns the server; everybody else sees an opaque pointer.
// Threads    win_server_new, _run, _is_ready and _destroy: the owner's thread. win_server_is_ready,
//            win_server_copy_clients (both), _find_client, _pulse, _links and _post: any thread. The others: the actor's
//            thread only.
// Failures   A null argument is logged and answered with nullptr, false or nothing.
#pragma once

#include "base/bytes.h"
#include "base/czmq_ptr.h"
#include "base/loop_pulse.h"
#include "link/client_table.h"
#include "net/link_watch.h"

#include <czmq.h>

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace rtls {

// A server configured from `config`, nothing started; or nullptr.
void* win_server_new(zconfig_t* config, void* p_rtls_gateway);

// Starts the actor. False when one already runs or it cannot be started. Returns before the sockets
// exist; see win_server_is_ready.
bool win_server_run(void* p_win_server);

// Stops the actor if it runs, frees the server, nulls the handle.
void win_server_destroy(void** pp_win_server);
using win_server_ptr = std::unique_ptr<WIN_SERVER_t, destroyed_by<win_server_destroy>>;

// The table of WIN_CLIENT_t by identity (upper-case hex). Actor's thread only.
zhashx_t* win_server_get_clients(void* p_win_server);

// True once every socket is open and the loop is about to start; stays true.
bool win_server_is_ready(void* p_win_server);

// A copy of the clients' addresses, in table order. Takes the table's own lock.
std::vector<win_client_info> win_server_copy_clients(WIN_SERVER_t& server);
// The same in no order, and in slices that hold up nobody for long. Throws std::bad_alloc.
std::vector<win_client_info> win_server_copy_clients_in_slices(WIN_SERVER_t& server);
// What may be known of the client with this identity; nothing when it is not connected.
std::optional<win_client_info> win_server_find_client(WIN_SERVER_t& server, bytes_view identity) noexcept;

// Of the actor's loop. Any thread.
const loop_pulse& win_server_pulse(const WIN_SERVER_t& server) noexcept;

// The links to the servers upstream, by the names under which the log knows them.
struct named_link_state {
    const char* name;
    link_state state;
};
std::array<named_link_state, 3> win_server_links(const WIN_SERVER_t& server);

// Has the call made on the actor's thread, soon or never. False while no actor runs.
bool win_server_post(WIN_SERVER_t& server, std::function<void()> call) noexcept;

} // namespace rtls
