#include "uplink/upstream.h"

#include "base/hex.h"
#include "base/message_part.h"
#include "base/null_check.h"
#include "link/intake.h"
#include "wire/report_texts.h"

#include <cstring>

namespace rtls {

// Nothing waits for a server that is not there, or where there is no loop to end the wait.
static bool may_wait(const WIN_SERVER_t& server, const link_watch& link)
{
    return server.actor_loop && link.is_reached();
}

static void pause_if_waiting(WIN_SERVER_t& server, const upstream_queue& queue)
{
    if (queue.is_waiting())
        intake_pause(server);
}

static void print_raw_output(WIN_SERVER_t* server, bytes_view data)
{
    if (!dbg_is_wanted(DBG_RAW))
        return;
    if (const hex_text text{data}; text.is_made())
        dbg_print(server->dbg_client_sock, DBG_RAW, "HANDLER_RAW_OUTPUT", "%s [%zu]", text.c_str(),
                  data.size());
}

void data_to_msg_handler(WIN_SERVER_t* server, const uint8_t* data, size_t size, uint32_t seconds,
                         uint16_t milliseconds)
{
    if (any_null(__func__, server, data))
        return;
    print_raw_output(server, {data, size});

    const timestamp_bytes time = timestamp_frame(seconds, milliseconds);
    static_assert(time.size() <= inline_part_size); // its part cannot fail
    message_part data_part{bytes_view{data, size}};
    if (!data_part.is_made()) {
        server->to_handler.lose_unmade();
        log_call_error(__func__, "zframe_new");
        return;
    }
    server->to_handler.send(zsock_resolve(server->msg_handler_sock), time, data_part,
                            may_wait(*server, server->msg_handler_link));
    pause_if_waiting(*server, server->to_handler);
}

// What is caused by bytes that are being read has their origin.
static tap_origin origin_of(const WIN_SERVER_t& server)
{
    return server.event_time ? server.tap.read_origin() : tap_origin{};
}

void tap_report(WIN_SERVER_t& server, bytes_view data, uint32_t seconds, uint16_t milliseconds)
{
    server.tap.publish({tap_class::report, tap_direction::up, origin_of(server)},
                       tap_topic{tap_class::report, report_sender(data)},
                       timestamp_frame(seconds, milliseconds), data);
}

static void tap_line(WIN_SERVER_t& server, bytes_view line)
{
    server.tap.publish({tap_class::management, tap_direction::up, origin_of(server)},
                       tap_topic{tap_class::management}, line);
}

void win_management_to_server(WIN_SERVER_t* server, const char* text)
{
    if (any_null(__func__, server, text))
        return;
    const tav_timestamp_t now = get_current_time();
    char head[management_head_limit];
    const size_t head_size = write_management_head(now, head);
    const size_t text_size = std::strlen(text);
    const size_t size = head_size + text_size + sizeof management_tail;

    message_part line{size};
    if (!line.is_made()) {
        server->to_proxy_input.lose_unmade();
        log_call_error(__func__, "zstr_send (proxy_input_sock)");
        return;
    }
    std::memcpy(line.data(), head, head_size);
    std::memcpy(line.data() + head_size, text, text_size);
    line.data()[size - 1] = management_tail;
    dbg_print_ts(server->dbg_client_sock, now, DBG_RAW, "JSON_OUTPUT", "%.*s", static_cast<int>(size),
                 reinterpret_cast<const char*>(line.data()));

    if (server->tap.takes(tap_class::management))
        tap_line(*server, line.bytes());
    // Peers take the line's end from the frame's: there is no terminating zero.
    server->to_proxy_input.send(zsock_resolve(server->proxy_input_sock), line, nullptr,
                                may_wait(*server, server->proxy_input_link));
    pause_if_waiting(*server, server->to_proxy_input);
}

// At the start, too, when a socket could not be opened.
void upstream_stopping(WIN_SERVER_t& server) noexcept
{
    const auto socket_of = [](zsock_t* sock) { return sock ? zsock_resolve(sock) : nullptr; };
    server.to_handler.stopping(socket_of(server.msg_handler_sock));
    server.to_proxy_input.stopping(socket_of(server.proxy_input_sock));
}

} // namespace rtls
