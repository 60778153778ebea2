#include "net/link_watch.h"

#include "base/common.h"
#include "base/endpoints.h"
#include "base/logger.h"
#include "base/message_part.h"

#include <arpa/inet.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace rtls {

void make_io_threads()
{
    // CZMQ reads it when it starts; whoever runs us may have asked for more.
    constexpr char variable[] = "ZSYS_IO_THREADS";
    const char* asked = getenv(variable);
    if (!asked || strtol(asked, nullptr, 10) < static_cast<long>(io_threads_number))
        (void)setenv(variable, std::to_string(io_threads_number).c_str(), 1);
}

bool is_by_number(const std::string& endpoint)
{
    static constexpr std::string_view transport = "tcp://";
    const size_t colon = endpoint.rfind(':');
    in_addr parsed{};
    return endpoint.starts_with(transport) && colon >= transport.size() &&
           inet_pton(AF_INET, endpoint.substr(transport.size(), colon - transport.size()).c_str(), &parsed) ==
               1;
}

void serve_by(zsock_t* sock, io_thread thread)
{
    // A thread that is not there would make the socket useless.
    if (zmq_ctx_get(zsys_init(), ZMQ_IO_THREADS) >= static_cast<int>(io_threads_number))
        zsock_set_affinity(sock, 1 << thread);
}

void link_watch::open(zsock_t* sock, const std::string& endpoint, io_thread thread_for_names)
{
    m_sock = sock;
    m_endpoint = endpoint;
    serve_by(sock, is_by_number(endpoint) ? io_thread_of_ports : thread_for_names);
    notice_silence(zsock_resolve(sock));
    if (m_unsent)
        m_unsent->library_holds(static_cast<uint64_t>(zsock_sndhwm(sock)));

    // Each its own: the library lets go of the name of one that was closed in its own time.
    static std::atomic<unsigned> opened{0};
    char name[64];
    (void)snprintf(name, sizeof name, link_events_endpoint, opened++);
    m_events = zsock_new(ZMQ_PAIR);
    if (m_events)
        zsock_set_rcvhwm(m_events, 0); // the library's thread waits until it is rid of an event
    if (m_events && zmq_socket_monitor(zsock_resolve(sock), name, link_record::events) == 0 &&
        zsock_connect(m_events, "%s", name) == 0)
        return;
    log_call_error("link_watch", "zmq_socket_monitor");
    zsock_destroy(&m_events);
}

bool link_watch::join(zloop_t* loop)
{
    m_loop = loop;
    return !m_events || zloop_reader(loop, m_events, handle_events, this) == 0;
}

void link_watch::close() noexcept
{
    if (m_events)
        zmq_socket_monitor(zsock_resolve(m_sock), nullptr, 0);
    zsock_destroy(&m_events);
    m_loop = nullptr;
    m_sock = nullptr;
    m_silence.end();
    m_is_sampling = false;
    m_is_planned = false;
}

// A connection's descriptor is its own until the library has told of its end.
void link_watch::note(int event, int value) noexcept
{
    if (event == ZMQ_EVENT_CONNECTED && m_silence.begin(value))
        plan_sample();
    else if (event != ZMQ_EVENT_HANDSHAKE_SUCCEEDED)
        m_silence.end();
    const bool was_up = m_record.is_up();
    const tav_timestamp_t now = get_current_time();
    if (const char* reason = m_record.note(event, now.seconds * 1000 + now.milliseconds))
        logger_warning(g_logger, "%s: %s, connecting again", m_name, reason);
    if (m_unsent && m_record.is_up())
        m_unsent->is_up();
    else if (m_unsent && was_up)
        m_unsent->went_down();
}

int link_watch::handle_events(zloop_t* /*loop*/, zsock_t* reader, void* watch) noexcept
{
    auto* self = static_cast<link_watch*>(watch);
    void* socket = zsock_resolve(reader);
    message_part event;
    message_part endpoint;
    // The event's number and a value in host order, then the endpoint.
    while (event.receive(socket) && endpoint.receive(socket)) {
        uint16_t number = 0;
        int32_t value = 0;
        if (event.size() < sizeof number + sizeof value)
            continue;
        std::memcpy(&number, event.data(), sizeof number);
        std::memcpy(&value, event.data() + sizeof number, sizeof value);
        self->note(number, value);
    }
    if (self->m_record.is_given_up() && !self->m_is_planned)
        self->plan_mending();
    return 0;
}

void link_watch::plan_mending() noexcept
{
    const auto pause_ms = static_cast<size_t>(m_record.pause_ms());
    m_is_planned = zloop_timer(m_loop, pause_ms, 1, handle_timer, this) != -1;
    if (!m_is_planned)
        log_call_error("link_watch", "zloop_timer");
}

int link_watch::handle_timer(zloop_t* /*loop*/, int /*timer_id*/, void* watch) noexcept
{
    auto* self = static_cast<link_watch*>(watch);
    self->m_is_planned = false;
    if (self->m_record.is_given_up())
        self->mend();
    return 0;
}

// One after the other while there is a connection: after a stall, missed ones would come in a row.
void link_watch::plan_sample() noexcept
{
    if (m_is_sampling)
        return;
    m_is_sampling = zloop_timer(m_loop, silence_judge::sample_every_ms, 1, handle_sample, this) != -1;
    if (!m_is_sampling)
        log_call_error("link_watch", "zloop_timer");
}

int link_watch::handle_sample(zloop_t* /*loop*/, int /*timer_id*/, void* watch) noexcept
{
    auto* self = static_cast<link_watch*>(watch);
    self->m_is_sampling = false;
    if (self->m_silence.has_vanished(zclock_mono()) && self->m_silence.cut())
        logger_warning(g_logger, "%s: silent for %lld s, connecting again", self->m_name,
                       static_cast<long long>(silence_judge::longest_silence_ms / 1000));
    if (self->m_silence.is_about_one())
        self->plan_sample();
    return 0;
}

// The library's queue has gone with the endpoint.
void link_watch::count_lost() noexcept
{
    const uint64_t lost = m_unsent ? m_unsent->take_lost() : 0;
    if (lost == 0)
        return;
    m_record.lost(lost);
    if (!m_losses->add_lost(lost))
        logger_info(g_logger, "%s: %llu lost by connecting again", m_name,
                    static_cast<unsigned long long>(lost));
}

// Whether the library has taken the endpoint off its books is not known; it must not be there twice.
void link_watch::mend() noexcept
{
    m_record.mended();
    m_silence.end();
    (void)zsock_disconnect(m_sock, "%s", m_endpoint.c_str());
    count_lost();
    if (zsock_connect(m_sock, "%s", m_endpoint.c_str()) == 0)
        return;
    log_call_error("link_watch", "zsock_connect");
    m_record.not_mended();
    plan_mending();
}

} // namespace rtls
