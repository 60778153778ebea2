#include "tap/tap_socket.h"

#include "base/logger.h"
#include "base/message_part.h"

#include <array>
#include <cassert>
#include <cerrno>
#include <ctime>
#include <string_view>

namespace rtls {

// Of each subscriber, in messages: two seconds of 5,000 reports a second, and 5 MiB of them.
static constexpr int queue_length = 10'000;
// What a subscriber may send: topics.
static constexpr int64_t longest_topic = 4096;
// How long the last messages may take to leave: the stop is among them.
static constexpr int linger_ms = 200;
// Taken notice of in one look. Who sends more has the others wait for the next one.
static constexpr int most_in_a_look = 1000;

static constexpr char key[] = "tap/address";

bool tap_socket::read(zconfig_t* config)
{
    const char* text = zconfig_get(config, key, nullptr);
    if (!text)
        return true;
    const std::string_view endpoint = text;
    constexpr size_t transport_size = sizeof "tcp://" - 1;
    if ((!endpoint.starts_with("tcp://") && !endpoint.starts_with("ipc://")) ||
        endpoint.size() == transport_size) {
        logger_error(g_logger, "The parameter \"%s\" is no endpoint of tcp or ipc!", key);
        return false;
    }
    m_endpoint = endpoint;
    return true;
}

static bool set(void* socket, int option, int value)
{
    return zmq_setsockopt(socket, option, &value, sizeof value) == 0;
}

static bool prepare(void* socket)
{
    // A full queue is told, so that it can be counted; and what it does not take goes to the others all the same.
    return set(socket, ZMQ_XPUB_NODROP, 1) && set(socket, ZMQ_SNDHWM, queue_length) &&
           set(socket, ZMQ_LINGER, linger_ms) && set(socket, ZMQ_TCP_KEEPALIVE, 1) &&
           set(socket, ZMQ_TCP_KEEPALIVE_IDLE, 30) && set(socket, ZMQ_TCP_KEEPALIVE_INTVL, 10) &&
           set(socket, ZMQ_TCP_KEEPALIVE_CNT, 3) &&
           zmq_setsockopt(socket, ZMQ_MAXMSGSIZE, &longest_topic, sizeof longest_topic) == 0;
}

static uint64_t now_ns() noexcept
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

// Before it is bound.
bool tap_socket::protect(const curve_certificates& certificates) noexcept
{
    if (!certificates.closes_tap())
        return true;
    return m_guard.open(certificates.tap_subscribers()) && certificates.serve(m_socket);
}

bool tap_socket::open(const curve_certificates& certificates)
{
    m_opened_at_ns = now_ns();
    m_sock.reset(zsock_new(ZMQ_XPUB));
    if (!m_sock)
        return false;
    m_socket = zsock_resolve(m_sock.get());
    if (prepare(m_socket) && protect(certificates) && zmq_bind(m_socket, m_endpoint.c_str()) == 0)
        return true;
    const int error = errno;
    close();
    errno = error;
    return false;
}

void tap_socket::close() noexcept
{
    m_interest.clear();
    m_socket = nullptr;
    m_sock.reset();
    m_guard.close();
    m_counts.topics.set(0);
}

void tap_socket::look() noexcept
{
    if (const uint64_t refused = m_guard.answer()) {
        m_counts.refused.add(refused);
        if (m_refusals.begins(zclock_mono()))
            logger_warning(g_logger, "tap: somebody with another key than the subscribers' is refused");
    }
    message_part message;
    for (int i = 0; i < most_in_a_look && message.receive(m_socket); ++i)
        m_interest.note(message.bytes());
    m_counts.topics.set(m_interest.size());
}

void tap_socket::begin_read(uint32_t connection) noexcept
{
    m_read = {connection, now_ns()};
}

// What subscribers have read is noticed now and then only; asking for events has it noticed.
bool tap_socket::has_room_now() noexcept
{
    int events = 0;
    size_t size = sizeof events;
    return zmq_getsockopt(m_socket, ZMQ_EVENTS, &events, &size) == 0;
}

// The queue of one that takes it is full: it is dropped there, and goes to the others. Until that subscriber has read
// half of what waits for it, the library offers it nothing, and does not refuse a message because of it any more.
bool tap_socket::send_topic(tap_class of, bytes_view topic) noexcept
{
    if (send_copy(m_socket, topic, true))
        return true;
    if (errno != EAGAIN)
        return false;
    if (has_room_now() && send_copy(m_socket, topic, true))
        return true;
    m_counts.overflows[of].add();
    set(m_socket, ZMQ_XPUB_NODROP, 0);
    const bool is_sent = send_copy(m_socket, topic, true);
    set(m_socket, ZMQ_XPUB_NODROP, 1);
    return is_sent;
}

static void store_be64(bytes_span b, size_t at, uint64_t value)
{
    store_be32(b, at, static_cast<uint32_t>(value >> 32));
    store_be32(b, at + 4, static_cast<uint32_t>(value));
}

static void write_head(bytes_span head, const tap_socket::subject& what, uint64_t number)
{
    head[tap_head::version] = tap_head::present_version;
    head[tap_head::direction] = static_cast<uint8_t>(what.direction);
    store_be16(head, tap_head::reserved, 0);
    store_be32(head, tap_head::connection, what.origin.connection);
    store_be64(head, tap_head::number, number);
    store_be64(head, tap_head::clock, what.origin.clock_ns != 0 ? what.origin.clock_ns : now_ns());
}

// What needs memory is made before the topic leaves: nothing can fail behind it.
void tap_socket::send(const subject& what, const tap_topic& topic, const bytes_view* before,
                      bytes_view payload) noexcept
{
    const uint64_t number = ++m_numbers[static_cast<size_t>(what.of)];
    message_part last{payload};
    if (!last.is_made() || !send_topic(what.of, topic.bytes()))
        return m_counts.lost[what.of].add();
    std::array<uint8_t, tap_head::size> head; // not cleared: write_head writes all of it
    static_assert(head.size() <= inline_part_size);
    write_head(head, what, number);
    send_copy(m_socket, head, true);
    if (before)
        send_copy(m_socket, *before, true);
    last.send(m_socket);
    m_counts.published[what.of].add();
}

void tap_socket::publish(const subject& what, const tap_topic& topic, bytes_view payload) noexcept
{
    send(what, topic, nullptr, payload);
}

void tap_socket::publish(const subject& what, const tap_topic& topic, bytes_view before,
                         bytes_view payload) noexcept
{
    assert(before.size() <= inline_part_size);
    send(what, topic, &before, payload);
}

void tap_socket::publish(const tap_event& event, uint32_t connection) noexcept
{
    publish({tap_class::event, tap_direction::neither, {connection, 0}}, tap_topic{tap_class::event},
            event.bytes());
}

} // namespace rtls
