#include "tap/tap_guard.h"

#include "base/endpoints.h"
#include "base/message_part.h"

#include <algorithm>
#include <string_view>

namespace rtls {

static constexpr int most_at_once = 100;

// The parts of a question. All of them must be there; what stands in those without a name makes no difference.
static constexpr size_t version_part = 0;
static constexpr size_t id_part = 1;
static constexpr size_t mechanism_part = 5;
static constexpr size_t key_part = 6;
static constexpr size_t parts = 7;

static constexpr std::string_view zap_version = "1.0";
static constexpr std::string_view curve_mechanism = "CURVE";

bool tap_guard::open(void* context, const key& admitted)
{
    m_admitted = admitted;
    m_sock.reset(zmq_socket(context, ZMQ_REP));
    const int linger_ms = 0;
    return m_sock && zmq_setsockopt(m_sock.get(), ZMQ_LINGER, &linger_ms, sizeof linger_ms) == 0 &&
           zmq_bind(m_sock.get(), admission_endpoint) == 0;
}

namespace {

struct question {
    std::array<message_part, parts> part;
    bool is_whole = false;
};

} // namespace

// The question with all its parts, however many there are. False when nothing has been asked.
static bool receive(void* socket, question& asked) noexcept
{
    size_t number = 0;
    message_part rest;
    for (bool has_more = true; has_more; ++number) {
        message_part& part = number < parts ? asked.part[number] : rest;
        if (!part.receive(socket))
            return false;
        int more = 0;
        size_t size = sizeof more;
        has_more = zmq_getsockopt(socket, ZMQ_RCVMORE, &more, &size) == 0 && more != 0;
    }
    asked.is_whole = number == parts;
    return true;
}

static bool is(message_part& part, std::string_view text) noexcept
{
    return std::ranges::equal(part.bytes(), text, {}, {}, [](char c) { return static_cast<uint8_t>(c); });
}

static bool send_text(void* socket, std::string_view text, bool more = true) noexcept
{
    return send_copy(socket, {reinterpret_cast<const uint8_t*>(text.data()), text.size()}, more);
}

// False when nothing has been asked.
bool tap_guard::answer_next(bool& is_refused) noexcept
{
    void* const socket = m_sock.get();
    question asked;
    if (!receive(socket, asked))
        return false;
    const bool is_admitted = asked.is_whole && is(asked.part[version_part], zap_version) &&
                             is(asked.part[mechanism_part], curve_mechanism) &&
                             std::ranges::equal(asked.part[key_part].bytes(), m_admitted);
    is_refused = !is_admitted;
    send_text(socket, zap_version);
    send_copy(socket, asked.part[id_part].bytes(), true);
    send_text(socket, is_admitted ? "200" : "400");
    send_text(socket, is_admitted ? "OK" : "Unknown key");
    send_text(socket, ""); // who it is, and what else there is to say
    send_text(socket, "", false);
    return true;
}

uint64_t tap_guard::answer() noexcept
{
    uint64_t refused = 0;
    bool is_refused = false;
    for (int i = 0; i < most_at_once && m_sock && answer_next(is_refused); ++i)
        refused += is_refused ? 1 : 0;
    return refused;
}

} // namespace rtls
