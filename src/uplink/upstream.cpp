// Reports on their way to the servers: binary ones to the message handler, texts to the proxy's input.
//
// Both sends are don't-wait: a server that is down or slow costs its own reports and stalls nobody.
// The parts are made as ZeroMQ messages directly, which spares the fast path a frame object each.
#include "base/hex.h"
#include "base/logger.h"
#include "link/win_server_private.h"
#include "wire/report_texts.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

namespace rtls {

namespace {

// Reports the overflow of one upstream queue once, and once that it takes messages again.
class queue_watch {
public:
    constexpr queue_watch(const char* overflow_text, const char* exemption_text)
        : m_overflow_text(overflow_text), m_exemption_text(exemption_text)
    {
    }

    void accepted()
    {
        if (!m_overflows.load(std::memory_order_relaxed))
            return;
        m_overflows.store(false, std::memory_order_relaxed);
        logger_error(g_logger, "%s", m_exemption_text);
    }

    // With errno as the send left it.
    void refused(const char* function, const char* call)
    {
        if (errno != EAGAIN)
            log_call_error(function, call);
        else if (!m_overflows.exchange(true, std::memory_order_relaxed))
            logger_error(g_logger, "%s", m_overflow_text);
    }

private:
    const char* m_overflow_text;
    const char* m_exemption_text;
    std::atomic<bool> m_overflows{false};
};

// One part of a ZeroMQ message; whatever has not been sent is released.
class message_part {
public:
    explicit message_part(size_t size) : m_is_made(zmq_msg_init_size(&m_message, size) == 0) {}
    ~message_part()
    {
        if (m_is_made)
            zmq_msg_close(&m_message);
    }
    message_part(const message_part&) = delete;
    message_part& operator=(const message_part&) = delete;

    bool is_made() const { return m_is_made; }
    uint8_t* data() { return static_cast<uint8_t*>(zmq_msg_data(&m_message)); }
    bool send(void* socket, int flags) { return zmq_msg_send(&m_message, socket, flags) >= 0; }

    // For a message's first part. A sender looks only every millisecond or so whether its queue has been
    // emptied; in a burst it would refuse messages that there is room for.
    bool send_first(void* socket, int flags)
    {
        if (send(socket, flags))
            return true;
        return errno == EAGAIN && has_room(socket) && send(socket, flags);
    }

private:
    // Makes the sender look. Leaves errno as a full queue does when there is no room.
    static bool has_room(void* socket)
    {
        int events = 0;
        size_t size = sizeof events;
        const bool room =
            zmq_getsockopt(socket, ZMQ_EVENTS, &events, &size) == 0 && (events & ZMQ_POLLOUT) != 0;
        errno = EAGAIN;
        return room;
    }

    zmq_msg_t m_message;
    bool m_is_made;
};

// "Exemption" is what our operators' log filters know as the end of an overflow.
queue_watch msg_handler_queue{"Overflow message handler queue!", "Exemption message handler queue!"};
queue_watch proxy_input_queue{"Overflow proxy input queue!", "Exemption proxy input queue!"};

} // namespace

static void print_raw_output(WIN_SERVER_t* server, bytes_view data)
{
    if (!dbg_is_wanted(DBG_RAW))
        return;
    const std::unique_ptr<char[]> text{new (std::nothrow) char[2 * data.size() + 1]};
    if (!text)
        return;
    *write_hex(data, text.get()) = '\0';
    dbg_print(server->dbg_client_sock, DBG_RAW, "HANDLER_RAW_OUTPUT", "%s [%zu]", text.get(), data.size());
}

void data_to_msg_handler(WIN_SERVER_t* server, const uint8_t* data, size_t size, uint32_t seconds,
                         uint16_t milliseconds)
{
    if (!server || !data) {
        logger_error(g_logger, str_null_pointer, __func__);
        return;
    }
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
    if (time_part.send_first(socket, ZMQ_DONTWAIT | ZMQ_SNDMORE) && data_part.send(socket, ZMQ_DONTWAIT))
        msg_handler_queue.accepted();
    else
        msg_handler_queue.refused(__func__, "zframe_send");
}

void win_management_to_server(WIN_SERVER_t* server, const char* text)
{
    if (!server || !text) {
        logger_error(g_logger, str_null_pointer, __func__);
        return;
    }
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
    if (line.send_first(zsock_resolve(server->proxy_input_sock), ZMQ_DONTWAIT))
        proxy_input_queue.accepted();
    else
        proxy_input_queue.refused(__func__, "zstr_send (proxy_input_sock)");
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
    if (!server || !message.data()) {
        logger_error(g_logger, str_null_pointer, __func__);
        return false;
    }
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
