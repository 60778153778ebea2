#include "uplink/upstream.h"

#include "base/hex.h"
#include "base/message_part.h"
#include "base/null_check.h"
#include "base/overflow_watch.h"
#include "wire/report_texts.h"

#include <cerrno>
#include <cstring>

namespace rtls {

// For a message's first part. A sender looks only every millisecond or so whether its queue has been
// emptied; in a burst it would refuse messages that there is room for. Asking for its events makes it look.
// Leaves errno as a full queue does when there is no room.
static bool send_first(message_part& part, void* socket, bool more = false)
{
    if (part.send(socket, more))
        return true;
    if (errno != EAGAIN)
        return false;
    int events = 0;
    size_t size = sizeof events;
    const bool has_room =
        zmq_getsockopt(socket, ZMQ_EVENTS, &events, &size) == 0 && (events & ZMQ_POLLOUT) != 0;
    errno = EAGAIN;
    return has_room && part.send(socket, more);
}

static overflow_watch msg_handler_queue{"Overflow message handler queue!", "Exemption message handler queue!",
                                        "message handler queue"};
static overflow_watch proxy_input_queue{"Overflow proxy input queue!", "Exemption proxy input queue!",
                                        "proxy input queue"};

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
    message_part time_part{time.size()};
    message_part data_part{size};
    if (!time_part.is_made() || !data_part.is_made()) {
        log_call_error(__func__, "zframe_new");
        return;
    }
    std::memcpy(time_part.data(), time.data(), time.size());
    std::memcpy(data_part.data(), data, size);

    void* socket = zsock_resolve(server->msg_handler_sock);
    if (send_first(time_part, socket, true) && data_part.send(socket))
        msg_handler_queue.accepted();
    else
        msg_handler_queue.refused(__func__, "zframe_send");
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
        log_call_error(__func__, "zstr_send (proxy_input_sock)");
        return;
    }
    std::memcpy(line.data(), head, head_size);
    std::memcpy(line.data() + head_size, text, text_size);
    line.data()[size - 1] = management_tail;
    dbg_print_ts(server->dbg_client_sock, now, DBG_RAW, "JSON_OUTPUT", "%.*s", static_cast<int>(size),
                 reinterpret_cast<const char*>(line.data()));

    // Peers take the line's end from the frame's: there is no terminating zero.
    if (send_first(line, zsock_resolve(server->proxy_input_sock)))
        proxy_input_queue.accepted();
    else
        proxy_input_queue.refused(__func__, "zstr_send (proxy_input_sock)");
}

void upstream_stopping() noexcept
{
    msg_handler_queue.stopping();
    proxy_input_queue.stopping();
}

static void print_ul_tdoa(WIN_SERVER_t* server, const ul_tdoa_report& report)
{
    const uint8_t* tag = report.tag_mac;
    const uint8_t* responder = report.responder_mac;
    const uint8_t* reporter = report.reporter_mac;
    dbg_print(server->dbg_client_sock, DBG_PARSING, "UL_TDOA_INPUT",
              "TagMac:%02X%02X%02X%02X%02X%02X PeSeqNo:%u RespAnchorMac:%02X%02X%02X%02X%02X%02X "
              "ReporterMac:%02X%02X%02X%02X%02X%02X RangeMm:%d TagLqi:%u RespAnchorLqi:%u",
              tag[0], tag[1], tag[2], tag[3], tag[4], tag[5], report.pe_seq_no, responder[0], responder[1],
              responder[2], responder[3], responder[4], responder[5], reporter[0], reporter[1], reporter[2],
              reporter[3], reporter[4], reporter[5], report.range_mm, report.tag_lqi, report.resp_anchor_lqi);
    if (report.board)
        dbg_print(server->dbg_client_sock, DBG_PARSING, "UL_TDOA_INPUT",
                  "BoardVersion:%u BoardRevision:%u Flags:%X FirmwareId:%X BattVoltage:%u",
                  report.board->version, report.board->revision, report.board->flags,
                  report.board->firmware_id, report.board->batt_voltage);
    if (report.percent_of_charge)
        dbg_print(server->dbg_client_sock, DBG_PARSING, "UL_TDOA_INPUT", "PercentOfCharge:%u",
                  *report.percent_of_charge);
}

bool processing_ul_tdoa(WIN_SERVER_t* server, bytes_view message, const uint8_t* /*node_mac*/)
{
    if (any_null(__func__, server, message.data()))
        return false;
    const auto report = read_ul_tdoa(message);
    if (!report)
        return false;
    print_ul_tdoa(server, *report);
    char text[ul_tdoa_text_limit];
    write_ul_tdoa_text(*report, text);
    win_management_to_server(server, text);
    return true;
}

} // namespace rtls
