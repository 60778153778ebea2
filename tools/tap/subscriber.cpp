#include "tap/subscriber.h"

#include "tap/failure.h"
#include "tap/zmq_handles.h"

#include <fmt/format.h>

#include <poll.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <utility>

namespace tap {

using namespace rtls::recording;

static constexpr char watch_endpoint[] = "inproc://tap-link";
// Messages that wait while we write; those beyond are lost, and their numbers tell it.
static constexpr int queue_limit = 100'000;
// Until it is said that nobody answers.
static constexpr std::chrono::milliseconds notice_after{2000};
static constexpr int handshake_failed = ZMQ_EVENT_HANDSHAKE_FAILED_AUTH |
                                        ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL |
                                        ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL;

struct subscriber::sockets {
    context_ptr context{zmq_ctx_new()};
    socket_ptr tap;
    socket_ptr watch; // what happens to the connection
};

static void set_key(void* socket, int option, const std::string& key)
{
    if (zmq_setsockopt(socket, option, key.c_str(), key.size() + 1) != 0)
        throw failure(exit_status::usage, fmt::format("the keys of the certificates cannot be used: {}",
                                                      zmq_strerror(zmq_errno())));
}

static void encrypt(void* socket, const curve_keys& keys)
{
    set_key(socket, ZMQ_CURVE_SERVERKEY, keys.gateway);
    set_key(socket, ZMQ_CURVE_PUBLICKEY, keys.own_public);
    set_key(socket, ZMQ_CURVE_SECRETKEY, keys.own_secret);
}

static void subscribe(void* socket, const subscription& wanted)
{
    zmq_setsockopt(socket, ZMQ_RCVHWM, &queue_limit, sizeof queue_limit);
    if (wanted.certificates.are_named())
        encrypt(socket, read_certificates(wanted.certificates));
    if (wanted.topics.empty())
        zmq_setsockopt(socket, ZMQ_SUBSCRIBE, "", 0);
    for (const std::string& topic : wanted.topics)
        zmq_setsockopt(socket, ZMQ_SUBSCRIBE, topic.data(), topic.size());
    if (zmq_connect(socket, wanted.endpoint.c_str()) != 0)
        throw failure(exit_status::usage, fmt::format("\"{}\" is no endpoint, as tcp://127.0.0.1:5559 is: {}",
                                                      wanted.endpoint, zmq_strerror(zmq_errno())));
}

subscriber::subscriber(const subscription& wanted, note_function note)
    : m_wanted(wanted), m_note(std::move(note)), m_signals{SIGINT, SIGTERM},
      m_sockets(std::make_unique<sockets>())
{
    const context_ptr& context = m_sockets->context;
    m_sockets->tap = new_socket(context, ZMQ_SUB);
    m_sockets->watch = new_socket(context, ZMQ_PAIR);
    zmq_socket_monitor(m_sockets->tap.get(), watch_endpoint,
                       ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED | handshake_failed);
    zmq_connect(m_sockets->watch.get(), watch_endpoint);
    subscribe(m_sockets->tap.get(), m_wanted);
}

subscriber::~subscriber()
{
    if (m_sockets->tap)
        zmq_socket_monitor(m_sockets->tap.get(), nullptr, 0);
    m_sockets.reset();
}

// --- One message

bool subscriber::take(tap_message& message)
{
    for (;;) {
        auto frames = receive_frames(m_sockets->tap.get());
        if (frames.empty())
            return false;
        if (frames.size() >= 2 && parse_head(frames[1], message.head)) {
            message.topic.assign(frames[0].begin(), frames[0].end());
            message.payload.assign(std::make_move_iterator(frames.begin() + 2),
                                   std::make_move_iterator(frames.end()));
            return true;
        }
        ++m_not_understood;
    }
}

// --- The connection

void subscriber::note_event(int what)
{
    m_is_linked = what == ZMQ_EVENT_HANDSHAKE_SUCCEEDED;
    if (what == ZMQ_EVENT_HANDSHAKE_SUCCEEDED) {
        if (m_was_linked || m_said_nobody)
            m_note("connected to the tap");
        m_was_linked = true;
    } else if (m_was_linked && what == ZMQ_EVENT_DISCONNECTED)
        m_note("the tap is gone; waiting for it");
    else if (!m_was_linked)
        m_was_refused = true;
}

void subscriber::watch_link()
{
    for (auto frames = receive_frames(m_sockets->watch.get()); !frames.empty();
         frames = receive_frames(m_sockets->watch.get())) {
        uint16_t what = 0; // in this machine's order
        if (frames[0].size() < sizeof what)
            continue;
        std::memcpy(&what, frames[0].data(), sizeof what);
        note_event(what);
    }
}

std::string subscriber::why_nobody() const
{
    if (!m_was_refused)
        return fmt::format("nobody answers at {}", m_wanted.endpoint);
    return fmt::format("{} does not let us in: {}", m_wanted.endpoint,
                       m_wanted.certificates.are_named()
                           ? "it is not encrypted, or knows other certificates"
                           : "it is no tap, or an encrypted one (--certificate)");
}

// No longer than to the time when it is to be said that nobody answers.
std::chrono::milliseconds subscriber::until_notice(std::chrono::milliseconds within) const
{
    if (m_was_linked)
        return within;
    return std::min(within, std::chrono::milliseconds{100});
}

bool subscriber::has_given_up()
{
    const std::chrono::duration<double> waited = clock::now() - m_began;
    if (m_was_linked)
        return false;
    if (m_wanted.patience > 0 && waited.count() >= m_wanted.patience)
        return true;
    if (!m_said_nobody && waited >= notice_after) {
        m_note(why_nobody() + (m_was_refused ? "" : " yet"));
        m_said_nobody = true;
    }
    return false;
}

static std::vector<zmq_pollitem_t> poll_items(void* tap, void* watch, int signals,
                                              std::span<const other_descriptor> others)
{
    std::vector<zmq_pollitem_t> items{
        {tap, 0, ZMQ_POLLIN, 0}, {watch, 0, ZMQ_POLLIN, 0}, {nullptr, signals, ZMQ_POLLIN, 0}};
    for (const other_descriptor& it : others) {
        const int events =
            ((it.events & POLLIN) != 0 ? ZMQ_POLLIN : 0) | ((it.events & POLLOUT) != 0 ? ZMQ_POLLOUT : 0);
        items.push_back({nullptr, it.fd, static_cast<short>(events), 0});
    }
    return items;
}

arrival subscriber::next(tap_message& message, std::chrono::milliseconds within,
                         std::span<const other_descriptor> others)
{
    auto items = poll_items(m_sockets->tap.get(), m_sockets->watch.get(), m_signals.descriptor(), others);
    zmq_poll(items.data(), static_cast<int>(items.size()), until_notice(within).count());
    if (items[2].revents != 0 && m_signals.take())
        return arrival::stopped;
    if (items[1].revents != 0)
        watch_link();
    if (items[0].revents != 0 && take(message))
        return arrival::message;
    return has_given_up() ? arrival::nobody : arrival::nothing;
}

} // namespace tap
