#include "support/broker.h"

#include <algorithm>
#include <cctype>
#include <string_view>

static constexpr int patience_ms = 5000;

static constexpr std::string_view date_form = "dddd-dd-dd dd:dd:dd.ddd "; // d: a digit

static bool is_date(std::string_view text)
{
    return std::ranges::equal(text, date_form, [](char given, char form) {
        return form == 'd' ? std::isdigit(static_cast<unsigned char>(given)) != 0 : given == form;
    });
}

broker::broker(const std::string& endpoint) : m_socket(m_context, zmq::socket_type::pull)
{
    m_socket.set(zmq::sockopt::rcvtimeo, patience_ms);
    m_socket.set(zmq::sockopt::rcvhwm, 0);
    m_socket.bind(endpoint);
    m_endpoint = m_socket.get(zmq::sockopt::last_endpoint);
}

std::optional<std::string> broker::receive(zmq::recv_flags flags)
{
    zmq::message_t record;
    if (!m_socket.recv(record, flags))
        return std::nullopt;
    return record.to_string() + (record.more() ? " and more parts" : "");
}

std::string broker::next()
{
    return receive(zmq::recv_flags::none).value_or("nothing");
}

std::string broker::next_undated()
{
    std::string record = next();
    const size_t blank = record.find_first_of(' ');
    const size_t date = std::min(record.find_first_not_of(' ', blank), record.size());
    if (is_date(std::string_view(record).substr(date, date_form.size())))
        record.replace(date, date_form.size(), "DATE ");
    return record;
}

bool broker::is_empty()
{
    return !receive(zmq::recv_flags::dontwait);
}
