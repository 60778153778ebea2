#include "terminal/debug_lines.h"

#include "base/common.h"
#include "base/logger.h"
#include "base/message_part.h"
#include "terminal/client.h"
#include "terminal/reply.h"
#include "terminal/terminal_server_private.h"
#include "terminal/texts.h"

#include <new>
#include <string>

namespace rtls {

static line_outcome offer_line(TERMINAL_SERVER_t& server, TERMINAL_CLIENT_t& client,
                               const char* line) noexcept
{
    if (client.preg && !passes(*client.preg, line))
        return line_outcome::filtered;
    return terminal_send(client, server.terminal_sock.get(), line) ? line_outcome::streamed
                                                                   : line_outcome::lost;
}

// Gives one line of the debug stream (at most 2047 bytes, so a filter has little to chew) to those who
// want it.
static void deliver_line(TERMINAL_SERVER_t* server, const char* line) noexcept
{
    if (!*line)
        return; // an empty text would close the subscribers' connections
    server->clients.for_each([&](TERMINAL_CLIENT_t& client) {
        if (client.subscribed && !client.has_left)
            server->counts.lines[offer_line(*server, client, line)].add();
    });
}

int handle_dbg_message(zloop_t* /*loop*/, zsock_t* reader, void* p_server) noexcept
{
    auto* server = static_cast<TERMINAL_SERVER_t*>(p_server);
    turn turn;
    message_part part;
    try {
        do {
            if (!part.receive(zsock_resolve(reader)))
                break;
            server->counts.lines_taken.add();
            const std::string line{reinterpret_cast<const char*>(part.data()), part.size()};
            deliver_line(server, line.c_str());
        } while (turn.goes_on());
    } catch (const std::bad_alloc&) {
        logger_error(g_logger, str_out_of_memory, __func__);
    }
    return 0;
}

} // namespace rtls
