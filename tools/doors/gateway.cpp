#include "doors/gateway.h"

#include "doors/failure.h"

#include <nlohmann/json.hpp>

#include <utility>

namespace ctl {

gateway::gateway(gateway_address address, seconds timeout, way wanted)
    : m_address(std::move(address)), m_timeout(timeout), m_wanted(wanted)
{
}

// Whether a gateway answers on the HTTP port. With a terminal to ask instead, nobody there is no failure.
bool gateway::is_there()
try {
    const json version = m_http->page("/version");
    if (version.value("name", json(nullptr)) != "rtls-gateway")
        throw failure(exit_status::refused, "what answers at " + m_address.http + " is no gateway");
    return true;
} catch (const failure& why) {
    if (why.status() != exit_status::unreachable || m_wanted == way::http || !m_address.terminal)
        throw;
    return false;
}

http_session* gateway::http()
{
    if (m_wanted == way::terminal || m_address.http.empty()) {
        if (m_wanted == way::http)
            throw failure(exit_status::usage, "the gateway's HTTP port is not known (--http HOST:PORT)");
        return nullptr;
    }
    if (!m_has_looked) {
        const std::string token = m_address.token_file.empty() ? "" : read_token(m_address.token_file);
        m_http = std::make_unique<http_session>(m_address.http, token, m_timeout);
        m_has_looked = true;
        if (!is_there())
            m_http.reset();
    }
    return m_http.get();
}

http_session& gateway::http_only()
{
    http_session* const session = http();
    if (session == nullptr)
        throw failure(exit_status::refused,
                      "only a gateway's HTTP port tells this, and none is known or answers "
                      "(--http HOST:PORT)");
    return *session;
}

terminal_session& gateway::terminal()
{
    if (!m_address.terminal || m_wanted == way::http)
        throw failure(exit_status::usage, "this goes by a gateway's terminal alone (--terminal HOST:PORT)");
    if (!m_terminal)
        m_terminal = std::make_unique<terminal_session>(*m_address.terminal, m_timeout);
    return *m_terminal;
}

void gateway::hang_up()
{
    m_has_looked = false;
    m_http.reset();
    m_terminal.reset();
}

} // namespace ctl
