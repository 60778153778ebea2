#include "terminal/win_requests.h"

#include "base/common.h"
#include "base/logger.h"
#include "base/message_part.h"
#include "base/null_check.h"
#include "terminal/terminal_server_private.h"
#include "wire/messaging.h"

#include <cerrno>
#include <cstdint>

namespace rtls {

// The log's name for it; the misspelling stays: operators' scripts find it in our logs.
static constexpr char logged_as[] = "terminal_server_generic_req_to_win_serwer";

bool ask_win_server(TERMINAL_SERVER_t& server, bytes_view request) noexcept
{
    zsock_t* sock = server.winserv_client_sock.get();
    if (any_null(logged_as, sock))
        return false;
    constexpr int32_t command = WINSERW_SOCK_CMD_GENERIC_REQ; // host order: it stays in the process
    message_part command_part{bytes_view{reinterpret_cast<const uint8_t*>(&command), sizeof command}};
    message_part request_part{request};
    if (!command_part.is_made() || !request_part.is_made()) {
        server.counts.requests_lost.add();
        log_call_error(logged_as, "zframe_new");
        return false;
    }
    void* socket = zsock_resolve(sock);
    if (command_part.send(socket, true) && request_part.send(socket))
        return true;
    server.counts.requests_lost.add();
    if (errno == EAGAIN)
        logger_error(g_logger, "Overflow winserw queue!"); // each one is a command that was not sent
    else
        log_call_error(logged_as, "zframe_send");
    return false;
}

} // namespace rtls
