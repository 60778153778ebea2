// broker - plays the debug broker: a bound PULL socket and what came in.
#pragma once

#include <zmq.hpp>

#include <optional>
#include <string>

class broker {
public:
    explicit broker(const std::string& endpoint = "tcp://127.0.0.1:*");

    const std::string& endpoint() const { return m_endpoint; }

    // The next record, or "nothing" when none comes within five seconds.
    std::string next();

    // The same, with the date replaced by "DATE" after a check of its form.
    std::string next_undated();

    // Whether the socket is empty. Only meaningful when nothing can still be on its way.
    bool is_empty();

private:
    std::optional<std::string> receive(zmq::recv_flags flags);

    zmq::context_t m_context;
    zmq::socket_t m_socket;
    std::string m_endpoint;
};
