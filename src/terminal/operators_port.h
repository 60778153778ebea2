// operators_port - the reader of the operators' port: who comes, what he types, when he leaves.
//
// Threads    The actor's.
// Blocking   A send waits 100 ms for an operator who stops reading, once until he reads again.
// Failures   Without memory an event is logged and lost.
#pragma once

#include <czmq.h>

#include <string>

namespace rtls {

struct TERMINAL_SERVER_t;

// What the operators' connections inherit from the socket they come by.
void prepare_operators_port(zsock_t* sock) noexcept;

// The loop's handler of the port: a turn of events. `p_server`: TERMINAL_SERVER_t.
int handle_terminal_clients(zloop_t* loop, zsock_t* reader, void* p_server) noexcept;

// An image has been fetched for the operator with this identity (upper-case hex), or could not be (index -1):
// answers, and does what was typed meanwhile, up to the next image. Nothing for somebody unknown. What memory
// is too short for is logged and left out.
void answer_fetch(TERMINAL_SERVER_t& server, const std::string& id_str, int index);

} // namespace rtls
