#include "rtls-tail/captured_links.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <utility>

namespace tail {

using namespace rtls::recording;

static constexpr size_t captured_limit = 100'000;

captured_links::captured_links(const std::string& file, uint16_t port)
    : m_name(file), m_port(port), m_source(open_recording(file)), m_reader(*m_source)
{
}

// As the gateway names the connection of a bridge that it does not know yet.
static std::string name_of(uint32_t connection)
{
    return fmt::format("id-{:08X}", connection);
}

tap_message captured_links::new_message(message_class of, uint32_t number, uint64_t clock_ns)
{
    tap_message made;
    made.topic = of == message_class::event ? std::string{class_name(of)}
                                            : fmt::format("{}/{}", class_name(of), name_of(number));
    made.head.way = of == message_class::link_in    ? way::up
                    : of == message_class::link_out ? way::down
                                                    : way::neither;
    made.head.connection = number;
    made.head.number = ++m_numbers[static_cast<size_t>(of)];
    made.head.clock_ns = clock_ns;
    return made;
}

void captured_links::add(const connection& it, message_class of, std::vector<reassembly::piece> pieces)
{
    for (reassembly::piece& piece : pieces) {
        ready_message& made = m_ready.emplace_back();
        made.message = new_message(of, it.number, piece.clock_ns);
        made.message.payload.push_back(std::move(piece.bytes));
        made.follows_gap = piece.follows_gap;
        m_missing_bytes += piece.missing;
    }
}

void captured_links::open(connection& it, const ends& both, uint64_t clock_ns)
{
    it = {++m_opened, {}, {}};
    const std::string text = nlohmann::ordered_json{
        {"event", "connection_seen"},
        {"bridge", name_of(it.number)},
        {"connection", it.number},
        {"address", text_of(both[0])},
        {"gateway",
         text_of(both[1])}}.dump();
    m_ready.push_back({new_message(message_class::event, it.number, clock_ns), false});
    m_ready.back().message.payload.emplace_back(text.begin(), text.end());
}

void captured_links::close(connection& it)
{
    add(it, message_class::link_in, it.in.give_up());
    add(it, message_class::link_out, it.out.give_up());
}

// `begins`: a bridge opens it. Ends may be the same as of one before, and a beginning may be sent again.
captured_links::connection& captured_links::of(const ends& both, const uint32_t* begins, uint64_t clock_ns)
{
    if (m_connections.size() >= captured_limit && !m_connections.contains(both))
        close_all();
    const auto [found, is_new] = m_connections.try_emplace(both);
    connection& it = found->second;
    const bool is_another = !is_new && begins && !it.in.has_begun_with(*begins);
    if (is_another)
        close(it);
    if (is_new || is_another)
        open(it, both, clock_ns);
    return it;
}

void captured_links::take(const tcp_segment& segment, uint64_t clock_ns)
{
    const bool is_up = segment.to.port == m_port;
    if (!is_up && segment.from.port != m_port)
        return;
    const ends both = is_up ? ends{segment.from, segment.to} : ends{segment.to, segment.from};
    const uint32_t first =
        segment.sequence + 1; // of the bytes behind a beginning, which has a number of its own
    connection& it = of(both, is_up && segment.is_begin ? &first : nullptr, clock_ns);
    reassembly& bytes = is_up ? it.in : it.out;
    if (segment.is_begin)
        bytes.begin(first);
    else
        add(it, is_up ? message_class::link_in : message_class::link_out,
            bytes.add(segment.sequence, clock_ns, segment.payload));
}

void captured_links::close_all()
{
    for (auto& [both, it] : m_connections)
        close(it);
    m_connections.clear();
}

reading captured_links::read_packet()
try {
    const reading state = m_reader.next(m_packet);
    if (state == reading::damaged)
        m_reason = fmt::format("{}: {}", m_name, m_reader.reason());
    return state;
} catch (const file_error& why) {
    m_reason = why.what();
    return reading::damaged;
}

bool captured_links::next(tap_message& message)
{
    while (m_ready.empty() && m_state == reading::message) {
        m_state = read_packet();
        if (m_state != reading::message)
            close_all();
        else if (const auto segment = segment_in(m_packet.link_type, m_packet.bytes))
            take(*segment, m_packet.clock_ns);
    }
    if (m_ready.empty())
        return false;
    message = std::move(m_ready.front().message);
    m_follows_gap = m_ready.front().follows_gap;
    m_ready.pop_front();
    return true;
}

void captured_links::end(const tap::program& told_by) const
{
    if (m_state == reading::cut)
        told_by.note(fmt::format("{} ends within a packet", m_name));
    if (m_opened == 0)
        told_by.note(fmt::format("{} has no connection with port {} (--port)", m_name, m_port));
    if (m_missing_bytes > 0)
        told_by.note(fmt::format("{} bytes of connections are missing in {}", m_missing_bytes, m_name));
    if (m_state == reading::damaged)
        throw tap::failure(tap::exit_status::failed, m_reason);
}

} // namespace tail
