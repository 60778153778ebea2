#include "impl/broker_link.h"

#include <cstdint>
#include <cstring>
#include <exception>
#include <utility>

namespace tav::libs::core {

namespace {

constexpr int linger_ms = 5000;
constexpr char events_endpoint[] = "inproc://broker-link";
constexpr char silent_for[] = "silent for 12 s";
static_assert(rtls::silence_judge::longest_silence_ms == 12'000);

} // namespace

broker_link::broker_link(zmq::context_t& context)
    : m_context(context), m_socket(context, zmq::socket_type::push)
{
    m_socket.set(zmq::sockopt::linger, linger_ms);
    rtls::notice_silence(m_socket.handle());
}

// Without descriptors for it a link works as the library has it.
void broker_link::watch()
{
    zmq::socket_t events(m_context, zmq::socket_type::pair);
    events.set(zmq::sockopt::rcvhwm, 0); // the library's thread waits until it is rid of an event
    if (zmq_socket_monitor(m_socket.handle(), events_endpoint, rtls::link_record::events) != 0)
        return;
    events.connect(events_endpoint);
    m_events = std::move(events);
}

void broker_link::secure(const char* server_key, const char* own_public, const char* own_secret)
{
    m_socket.set(zmq::sockopt::curve_serverkey, server_key);
    m_socket.set(zmq::sockopt::curve_publickey, own_public);
    m_socket.set(zmq::sockopt::curve_secretkey, own_secret);
}

void broker_link::connect(const std::string& address)
{
    m_addresses.push_back(address);
    try {
        if (!m_events)
            watch();
        m_socket.connect(address);
        m_unsent.library_holds(m_addresses.size() *
                               static_cast<uint64_t>(m_socket.get(zmq::sockopt::sndhwm)));
    } catch (...) {
        m_addresses.pop_back();
        throw;
    }
}

void broker_link::close()
{
    m_events.close();
    m_socket.close();
}

bool broker_link::send(std::string_view record)
{
    // No result means that the queue is full, or that no broker is there.
    const bool is_sent = m_socket.send(zmq::buffer(record), zmq::send_flags::dontwait).has_value();
    if (is_sent)
        m_unsent.handed_over();
    else
        m_unsent.refused();
    return is_sent;
}

const char* broker_link::note(const zmq::message_t& event)
{
    uint16_t number = 0;
    int32_t value = 0;
    if (event.size() < sizeof number + sizeof value)
        return nullptr;
    std::memcpy(&number, event.data(), sizeof number);
    std::memcpy(&value, event.data<char>() + sizeof number, sizeof value);
    if (number == ZMQ_EVENT_CONNECTED)
        (void)m_silence.begin(value);
    else if (number != ZMQ_EVENT_HANDSHAKE_SUCCEEDED)
        m_silence.end();
    const bool was_up = m_record.is_up();
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const char* reason =
        m_record.note(number, std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
    if (m_record.is_up())
        m_unsent.is_up();
    else if (was_up)
        m_unsent.went_down();
    return reason;
}

// A broker that has vanished without a word: the connection is cut, and the library makes a new one.
bool broker_link::sample(clock::time_point now) noexcept
{
    using std::chrono::milliseconds;
    if (now - m_sampled_at < milliseconds(rtls::silence_judge::sample_every_ms))
        return false;
    m_sampled_at = now;
    const auto now_ms = std::chrono::duration_cast<milliseconds>(now.time_since_epoch()).count();
    return m_silence.has_vanished(now_ms) && m_silence.cut();
}

const char* broker_link::tend(clock::time_point now) noexcept
try {
    if (!m_events)
        return nullptr;
    const char* said = nullptr;
    zmq::message_t event;
    zmq::message_t endpoint;
    while (m_events.recv(event, zmq::recv_flags::dontwait) &&
           m_events.recv(endpoint, zmq::recv_flags::dontwait))
        if (const char* reason = note(event))
            said = reason;
    if (sample(now))
        said = silent_for;
    if (!m_record.is_given_up()) {
        m_is_planned = false;
    } else if (!m_is_planned) {
        m_is_planned = true;
        m_given_up_at = now;
    } else if (now - m_given_up_at >= std::chrono::milliseconds(m_record.pause_ms())) {
        mend();
    }
    return said;
} catch (const std::exception&) {
    return nullptr; // the log must not be what ends the daemon; the next time comes soon
}

// With several brokers it is not known which one was given up. An address that the library has taken off
// its books cannot be disconnected, and none may be there twice.
void broker_link::mend()
{
    m_is_planned = false;
    m_silence.end();
    m_record.mended();
    for (const std::string& address : m_addresses) {
        (void)zmq_disconnect(m_socket.handle(), address.c_str());
        if (zmq_connect(m_socket.handle(), address.c_str()) != 0)
            m_record.not_mended(); // tend() tries again
    }
    const uint64_t lost = m_unsent.take_lost();
    m_record.lost(lost);
    m_lost += lost;
}

} // namespace tav::libs::core
