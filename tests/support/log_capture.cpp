#include "support/log_capture.h"

#include "base/logger.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace rtls {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

static constexpr char marker_text[] = "log_capture marker";
static constexpr auto marker_patience = milliseconds(200);
static constexpr size_t date_length = sizeof "2024-05-01 13:07:02.045 " - 1;

static std::string_view component_of(std::string_view record)
{
    const std::string_view name = record.substr(record.find(':') + 1);
    return name.substr(0, name.find(' '));
}

// Names are padded with blanks, and one more stands before the date.
static std::string message_of(std::string_view record)
{
    const size_t date = record.find_first_not_of(' ', record.find(' '));
    return std::string(record.substr(date + date_length));
}

log_capture::log_capture() : m_broker(m_context, zmq::socket_type::pull)
{
    m_broker.set(zmq::sockopt::rcvhwm, 0);
    m_broker.set(zmq::sockopt::linger, 0);
    m_broker.bind("tcp://127.0.0.1:*");
    m_endpoint = m_broker.get(zmq::sockopt::last_endpoint);
    if (g_logger_ctx != nullptr || !logger_init("rtls-gateway"))
        throw std::runtime_error("log_capture: no logger, or a second one");
    logger_connect(g_logger_ctx, m_endpoint.c_str());
    if (!wait_for("Connected to socket"))
        throw std::runtime_error("log_capture: the logger does not connect");
    (void)take();
}

log_capture::~log_capture()
{
    logger_cleanup(); // before the broker goes: it lingers for the last records
}

// Adds the next record, if one comes in time.
bool log_capture::receive(milliseconds time)
{
    m_broker.set(zmq::sockopt::rcvtimeo, static_cast<int>(time.count()));
    zmq::message_t record;
    if (!m_broker.recv(record))
        return false;
    m_records.push_back(record.to_string());
    return true;
}

bool log_capture::wait_for(std::string_view text_part, milliseconds time)
{
    const auto deadline = steady_clock::now() + time;
    const auto contains = [&](const std::string& record) { return record.find(text_part) != record.npos; };
    if (std::ranges::any_of(m_records, contains))
        return true;
    while (receive(left_until(deadline)))
        if (contains(m_records.back()))
            return true;
    return false;
}

// All records pass one queue: with the marker, everything written before it has come. A marker may be
// lost to a full queue, as any record; then another one is sent.
void log_capture::synchronise()
{
    const auto deadline = steady_clock::now() + patience;
    const std::string marker = marker_text + (" " + std::to_string(++m_last_marker)) + ".";
    do {
        logger_info(g_logger, "%s", marker.c_str());
        if (wait_for(marker, marker_patience)) {
            std::erase_if(m_records, [](const std::string& record) {
                return message_of(record).starts_with(marker_text);
            });
            return;
        }
    } while (steady_clock::now() < deadline);
    throw std::runtime_error("log_capture: the records do not arrive");
}

std::vector<std::string> log_capture::take()
{
    synchronise();
    return std::exchange(m_records, {});
}

std::vector<std::string> log_capture::messages(std::string_view component)
{
    synchronise();
    const auto taken = std::stable_partition(m_records.begin(), m_records.end(), [&](const auto& record) {
        return component_of(record) != component;
    });
    std::vector<std::string> texts;
    std::transform(taken, m_records.end(), std::back_inserter(texts), message_of);
    m_records.erase(taken, m_records.end());
    return texts;
}

} // namespace rtls
