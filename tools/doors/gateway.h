// gateway - one gateway: its HTTP port where that is known and answers, its terminal otherwise.
//
// Ownership  Owns its connections, which are made when they are first needed.
// Threads    One at a time.
// Blocking   As terminal_session and http_session do.
// Failures   Thrown, see there.
#pragma once

#include "doors/gateways_file.h"
#include "doors/http_session.h"
#include "doors/terminal_session.h"

#include <memory>
#include <string>

namespace ctl {

// Which port is to be asked: the one that fits, or one alone.
enum class way { any, http, terminal };

class gateway {
public:
    gateway(gateway_address address, seconds timeout, way wanted);

    const std::string& name() const { return m_address.name; }

    // Null when the terminal is to be asked: as there is no HTTP port, or as nobody answers there.
    http_session* http();
    // The same, where only the HTTP port can answer.
    http_session& http_only();
    terminal_session& terminal();

    // Forgets the connections, the next question makes new ones: an answer that came too late is not taken for
    // another's.
    void hang_up();

    // For what takes longer than an answer does. Before the connection is needed.
    void be_patient(seconds timeout) { m_timeout = timeout; }

private:
    bool is_there();

    gateway_address m_address;
    seconds m_timeout;
    way m_wanted;
    bool m_has_looked = false;
    std::unique_ptr<http_session> m_http;
    std::unique_ptr<terminal_session> m_terminal;
};

} // namespace ctl
