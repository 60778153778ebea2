#include "rtls-replay/comparison.h"

#include "decode/decode.h"
#include "decode/hex_bytes.h"
#include "tap/failure.h"

#include <fmt/format.h>

#include <algorithm>

namespace replay {

using rtls::bytes_view;
using rtls::decode::hex_of;

// What a report is compared by: all but its time.
static std::vector<uint8_t> compared(const comparison::frames& report)
{
    std::vector<uint8_t> bytes;
    for (size_t i = 1; i < report.size(); ++i)
        bytes.insert(bytes.end(), report[i].begin(), report[i].end());
    return bytes;
}

static std::string node_of(const comparison::frames& report)
{
    if (report.size() != 2)
        return "-";
    const auto message = rtls::decode::decode_report(report[0], report[1]);
    for (const char* name : {"long_addr", "ieee_addr", "mac"})
        if (const auto* field = rtls::decode::find(message.fields, name))
            if (const auto* text = std::get_if<std::string>(field))
                return *text;
    return "-";
}

static std::string difference(bytes_view expected, bytes_view arrived)
{
    const auto [a, b] = std::ranges::mismatch(expected, arrived);
    return fmt::format("differs at byte {}: {} was recorded, {} has come", a - expected.begin(),
                       hex_of(expected), hex_of(arrived));
}

void comparison::compare(const std::string& node, of_node& it)
{
    while (!it.differs && !it.expected.empty() && !it.arrived.empty()) {
        it.differs = it.expected.front() != it.arrived.front();
        if (it.differs && m_first.empty())
            m_first = fmt::format("node {}: report {} {}", node, it.equal + 1,
                                  difference(it.expected.front(), it.arrived.front()));
        if (it.differs)
            return;
        ++it.equal;
        ++m_equal;
        it.expected.pop_front();
        it.arrived.pop_front();
    }
}

void comparison::expect(const frames& report)
{
    const std::string node = node_of(report);
    of_node& it = m_nodes[node];
    it.expected.push_back(compared(report));
    ++m_expected;
    compare(node, it);
}

void comparison::arrived(const frames& report)
{
    const std::string node = node_of(report);
    of_node& it = m_nodes[node];
    it.arrived.push_back(compared(report));
    compare(node, it);
}

uint64_t comparison::missing() const
{
    uint64_t sum = 0;
    for (const auto& [node, it] : m_nodes)
        sum += it.differs ? 0 : it.expected.size();
    return sum;
}

bool comparison::is_same() const
{
    return std::ranges::all_of(m_nodes, [](const auto& entry) {
        return entry.second.expected.empty() && entry.second.arrived.empty();
    });
}

std::string comparison::first_difference() const
{
    if (!m_first.empty())
        return m_first;
    for (const auto& [node, it] : m_nodes) {
        if (!it.expected.empty())
            return fmt::format("node {}: report {} has not come: {} was recorded", node, it.equal + 1,
                               hex_of(it.expected.front()));
        if (!it.arrived.empty())
            return fmt::format("node {}: report {} has come and was not recorded: {}", node, it.equal + 1,
                               hex_of(it.arrived.front()));
    }
    return "";
}

report_inbox::report_inbox(const std::string& endpoint)
    : m_context(zmq_ctx_new()), m_socket(tap::new_socket(m_context, ZMQ_PULL))
{
    const int any_number = 0; // nothing holds up the gateway
    zmq_setsockopt(m_socket.get(), ZMQ_RCVHWM, &any_number, sizeof any_number);
    if (zmq_bind(m_socket.get(), endpoint.c_str()) != 0)
        throw tap::failure(tap::exit_status::usage,
                           fmt::format("cannot bind {}: {}", endpoint, zmq_strerror(zmq_errno())));
}

bool report_inbox::drain(comparison& to)
{
    bool has_come = false;
    for (auto report = tap::receive_frames(m_socket.get()); !report.empty();
         report = tap::receive_frames(m_socket.get())) {
        to.arrived(report);
        has_come = true;
    }
    return has_come;
}

} // namespace replay
