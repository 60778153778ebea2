// terminal_server - the actor that serves operators and delivers the debug stream to them.
//
// Ownership  The gateway object owns the server; everybody else sees an opaque pointer.
// Threads    terminal_server_new, _run and _destroy: the owner's thread. terminal_server_is_ready and
//            terminal_server_post: any. The others: the actor's thread only. No lock but those of what the commands use.
// Blocking   terminal_server_destroy waits for the actor's end. The actor waits 100 ms for an operator who
//            stops reading, once until he reads again.
// Failures   A null argument is logged and answered with nullptr, false or nothing.
#pragma once

#include "base/czmq_ptr.h"
#include "net/descriptors.h"
#include "net/door.h"
#include "terminal/terminal_counters.h"

#include <czmq.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace rtls {

struct TERMINAL_SERVER_t;

void* terminal_server_new(zconfig_t* config, void* p_rtls_gateway);
bool terminal_server_run(void* p_terminal_server);
void terminal_server_destroy(void** pp_terminal_server);
using terminal_server_ptr = std::unique_ptr<TERMINAL_SERVER_t, destroyed_by<terminal_server_destroy>>;
zhashx_t* terminal_server_get_clients(void* p_terminal_server);

// Somebody will ask whether the loop turns: it wakes up once a second to show it (its figures' pulse). Before it
// runs; without this it has no timer.
void terminal_server_show_pulse(TERMINAL_SERVER_t& server) noexcept;

// What other threads may read of a server that is there, at any time.
struct terminal_figures {
    const terminal_counters& counts;
    const door& entrance;
    const full_house& house;
};
terminal_figures terminal_server_figures(const TERMINAL_SERVER_t& server) noexcept;

bool terminal_server_is_ready(void* p_terminal_server);

// What other threads may know of an operator.
struct operator_info {
    sockaddr_in addr;
    bool is_subscribed; // receives the debug stream
    bool is_fetching;   // waits for an image
    std::optional<std::string> filter;
};
// In table order. The actor's thread only; others have it called there. Throws std::bad_alloc.
std::vector<operator_info> terminal_server_copy_clients(const TERMINAL_SERVER_t& server);

// Has the call made on the actor's thread, soon or never. False while no actor runs. Any thread.
bool terminal_server_post(TERMINAL_SERVER_t& server, std::function<void()> call) noexcept;

// ask_win_server by handle, for those outside. The name is misspelt, and kept: operators' scripts find it in our
// logs.
bool terminal_server_generic_req_to_win_serwer(void* p_terminal_server, uint8_t* data, size_t data_size);

} // namespace rtls
