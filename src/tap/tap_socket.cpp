#include "tap/tap_socket.h"

#include "base/endpoints.h"
#include "base/logger.h"
#include "base/message_part.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <ctime>
#include <string_view>

namespace rtls {

// Of each subscriber, in messages: two seconds of 5,000 reports a second, and 5 MiB of them.
static constexpr int queue_length = 10'000;
// What the library reads of one ahead of us. More waits in his connection.
static constexpr int topics_ahead = 100;
// A frame of a subscriber's, with all that the protocol puts around a topic, or that a handshake consists of. Who sends
// a longer one is cut off by the library, which takes in no byte of it.
static constexpr int64_t longest_frame = 128;
static constexpr int64_t longest_encrypted_frame = 512;
// How long the last messages may take to leave: the stop is among them.
static constexpr int linger_ms = 200;
// Taken notice of in one look. Who sends more has the others wait for the next one.
static constexpr int most_in_a_look = 10'000;

// Ahead of a topic that we ask about, and behind the answer: a message that is longer than any that a subscriber can
// send.
static constexpr size_t mark_size = longest_encrypted_frame + 1;
static constexpr uint8_t answer_begins = 'b';
static constexpr uint8_t answer_ends = 'e';

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

static std::string_view text_of(bytes_view bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

static bool set(void* socket, int option, int value)
{
    return zmq_setsockopt(socket, option, &value, sizeof value) == 0;
}

static bool limit_frames(void* socket, int64_t longest)
{
    return zmq_setsockopt(socket, ZMQ_MAXMSGSIZE, &longest, sizeof longest) == 0;
}

// Versions of the protocol before 3.0 tell no descriptor: whoever speaks one could not be cut off. They know nothing of
// admission, either, so that the library refuses them where it might be asked for. Nobody answers for an open tap, and
// the library lets in the others without.
static bool refuse_old_greetings(void* socket)
{
    static constexpr char domain[] = "tap";
    return zmq_setsockopt(socket, ZMQ_ZAP_DOMAIN, domain, sizeof domain - 1) == 0;
}

static bool prepare(void* socket)
{
    // A full queue is told, so that it can be counted; and what it does not take goes to the others all the same.
    return set(socket, ZMQ_XPUB_NODROP, 1) && set(socket, ZMQ_SNDHWM, queue_length) &&
           set(socket, ZMQ_RCVHWM, topics_ahead) && set(socket, ZMQ_LINGER, linger_ms) &&
           set(socket, ZMQ_TCP_KEEPALIVE, 1) && set(socket, ZMQ_TCP_KEEPALIVE_IDLE, 30) &&
           set(socket, ZMQ_TCP_KEEPALIVE_INTVL, 10) && set(socket, ZMQ_TCP_KEEPALIVE_CNT, 3) &&
           limit_frames(socket, longest_frame) && refuse_old_greetings(socket);
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
    return m_guard.open(m_context.get(), certificates.tap_subscribers()) &&
           certificates.serve(m_socket.get()) && limit_frames(m_socket.get(), longest_encrypted_frame);
}

// To the subscribers' endpoint, and to our own.
bool tap_socket::bind() noexcept
{
    std::array<char, 256> bound{};
    size_t size = bound.size();
    if (zmq_bind(m_socket.get(), m_endpoint.c_str()) != 0 ||
        zmq_getsockopt(m_socket.get(), ZMQ_LAST_ENDPOINT, bound.data(), &size) != 0)
        return false;
    m_place.set(bound.data());
    return zmq_bind(m_socket.get(), tap_question_endpoint) == 0 &&
           zmq_connect(m_asker.get(), tap_question_endpoint) == 0;
}

bool tap_socket::open_sockets(const curve_certificates& certificates) noexcept
{
    m_context.reset(zmq_ctx_new());
    if (!m_context)
        return false;
    m_socket.reset(zmq_socket(m_context.get(), ZMQ_XPUB));
    m_asker.reset(zmq_socket(m_context.get(), ZMQ_XSUB));
    // A question is four messages: none of them may be dropped for a full queue.
    return m_socket && m_asker && prepare(m_socket.get()) && set(m_asker.get(), ZMQ_LINGER, 0) &&
           set(m_asker.get(), ZMQ_SNDHWM, 0) && protect(certificates) && bind();
}

bool tap_socket::open(const curve_certificates& certificates)
{
    m_opened_at_ns = now_ns();
    if (open_sockets(certificates))
        return true;
    const int error = errno;
    close();
    errno = error;
    return false;
}

void tap_socket::close() noexcept
{
    m_interest.clear();
    m_is_answer = false;
    m_asker.reset();
    m_socket.reset();
    m_guard.close();
    m_context.reset();
    m_counts.topics.set(0);
}

void tap_socket::answer_newcomers() noexcept
{
    const uint64_t refused = m_guard.answer();
    if (refused == 0)
        return;
    m_counts.refused.add(refused);
    if (m_refusals.begins(zclock_mono()))
        logger_warning(g_logger, "tap: somebody with another key than the subscribers' is refused");
}

static void write_mark(message_part& made, uint8_t what, bytes_view topic)
{
    std::fill_n(made.data(), mark_size, what);
    std::ranges::copy(topic, made.data() + mark_size);
}

// We subscribe to the topic of this message, and end it: if nobody else has it, the library tells both; and nothing if
// somebody has. The marks, which it passes on as they are, show what of that is the answer: it reads all four at once.
// What needs memory is made before the first leaves.
void tap_socket::ask_whether_taken(message_part& message) noexcept
{
    const bytes_view topic = message.bytes().subspan(1);
    message_part begins{mark_size + topic.size()};
    message_part subscription{message.bytes()};
    message_part ends{mark_size};
    if (!begins.is_made() || !subscription.is_made() || !ends.is_made())
        return m_interest.settle(text_of(topic)); // taken, until it is doubtful once more
    write_mark(begins, answer_begins, topic);
    write_mark(ends, answer_ends, {});
    subscription.data()[0] = 1;
    message.data()[0] = 0;
    for (message_part* part : {&begins, &subscription, &message, &ends})
        part->send(m_asker.get());
}

void tap_socket::cut_off(int fd) noexcept
{
    if (!m_place.cut(fd))
        return;
    m_counts.cut.add();
    if (m_cuts.begins(zclock_mono()))
        logger_warning(g_logger, "tap: a subscriber that sends more than topics within bounds is cut off");
}

// False when it is a subscriber's, or the library's.
bool tap_socket::heed_mark(bytes_view message) noexcept
{
    if (message.size() < mark_size)
        return false;
    m_is_answer = message[0] == answer_begins;
    if (m_is_answer)
        m_interest.settle(text_of(message.subspan(mark_size)));
    return true;
}

void tap_socket::heed(message_part& message) noexcept
{
    if (heed_mark(message.bytes()))
        return;
    const int fd = message.source_fd(); // none: the library's own word, or that of somebody who has gone
    const tap_voice by = m_is_answer ? tap_voice::answer : fd >= 0 ? tap_voice::peer : tap_voice::unknown;
    const tap_note note = m_interest.note(message.bytes(), by);
    if (note == tap_note::foul || !m_place.bears(fd))
        cut_off(fd);
    if (note == tap_note::doubtful_end)
        ask_whether_taken(message);
}

void tap_socket::look() noexcept
{
    answer_newcomers();
    message_part message;
    int heeded = 0;
    for (; heeded < most_in_a_look && message.receive(m_socket.get()); ++heeded)
        heed(message);
    m_place.look_is_over(heeded < most_in_a_look);
    m_counts.topics.set(m_interest.size());
}

void tap_socket::begin_read(uint32_t connection) noexcept
{
    m_read = {connection, now_ns()};
}

// The library sees only now and then that subscribers have read, and there is room in their queues again; asking it
// for events has it look. False when it cannot.
bool tap_socket::notice_what_was_read() noexcept
{
    int events = 0;
    size_t size = sizeof events;
    return zmq_getsockopt(m_socket.get(), ZMQ_EVENTS, &events, &size) == 0;
}

// The queue of one that takes it is full: it is dropped there, and goes to the others. Until that subscriber has read
// half of what waits for it, the library offers it nothing, and does not refuse a message because of it any more.
bool tap_socket::send_topic(tap_class of, bytes_view topic) noexcept
{
    if (send_copy(m_socket.get(), topic, true))
        return true;
    if (errno != EAGAIN)
        return false;
    if (notice_what_was_read() && send_copy(m_socket.get(), topic, true))
        return true;
    m_counts.overflows[of].add();
    set(m_socket.get(), ZMQ_XPUB_NODROP, 0);
    const bool is_sent = send_copy(m_socket.get(), topic, true);
    set(m_socket.get(), ZMQ_XPUB_NODROP, 1);
    return is_sent;
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
    message_part last = m_payloads.copy(payload);
    if (!last.is_made() || !send_topic(what.of, topic.bytes()))
        return m_counts.lost[what.of].add();
    std::array<uint8_t, tap_head::size> head; // not cleared: write_head writes all of it
    static_assert(head.size() <= inline_part_size);
    write_head(head, what, number);
    send_copy(m_socket.get(), head, true);
    if (before)
        send_copy(m_socket.get(), *before, true);
    last.send(m_socket.get());
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
