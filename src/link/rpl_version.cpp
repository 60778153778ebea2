#include "link/rpl_version.h"

#include "base/null_check.h"
#include "link/sending.h"
#include "wire/messaging.h"

#include <array>

namespace rtls {

static constexpr size_t rpl_timer_ms = 1000;

uint8_t get_next_rpl_version(void)
{
    static uint8_t next = 240;
    const uint8_t version = next++; // 255 is followed by 0
    if (version == 127)
        next = 0;
    return version;
}

void rpl_version_to_win_clients(WIN_SERVER_t* server)
{
    if (any_null(__func__, server) || any_null(__func__, server->actor_loop.get()))
        return;
    std::array<uint8_t, gwMsgVrPrefixResponse_t::size> message{};
    store_le16(message, gwMsgVrPrefixResponse_t::msgType, MSG_VR_PANID_RESP);
    store_le16(message, gwMsgVrPrefixResponse_t::rplPrefix, server->rpl_prefix);
    message[gwMsgVrPrefixResponse_t::rpl_version] = get_next_rpl_version();
    data_to_all_bridges(*server, message);

    server->unprocessed_MSG_PANID_REQ = false;
    // Without the timer the next request is answered at once: better than never.
    server->rpl_timer_is_active =
        zloop_timer(server->actor_loop, rpl_timer_ms, 1, rpl_timer_handler, server) != -1;
    if (!server->rpl_timer_is_active)
        log_call_error(__func__, "zloop_timer");
}

int rpl_timer_handler(zloop_t* loop, int timer_id, void* p_server) noexcept
{
    (void)timer_id;
    auto* server = static_cast<WIN_SERVER_t*>(p_server);
    if (any_null(__func__, loop, server))
        return 1;
    if (server->unprocessed_MSG_PANID_REQ)
        rpl_version_to_win_clients(server);
    else
        server->rpl_timer_is_active = false;
    return 0;
}

} // namespace rtls
