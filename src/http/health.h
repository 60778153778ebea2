// health - whether the daemon lives, and whether it serves: /livez and /readyz.
//
// It lives while both actors' loops have turned within three seconds and the log's thread is there: if not,
// only a restart helps. It is ready while both servers serve and every server upstream is connected.
// Ownership  The gateway outlives it.
// Threads    look(): one thread, about every second. The pages: any.
// Blocking   Nothing waits.
// Failures   The constructor and the pages throw std::bad_alloc.
#pragma once

#include "base/loop_pulse.h"
#include "http/json_text.h"
#include "http/responder.h"
#include "services.h"

#include <cstdint>

namespace rtls {

// Both actors' loops, asked together.
class actors_pulse {
public:
    static constexpr int64_t longest_pause_ms = 3000;

    // One thread, about every second; nothing waits.
    void ask(services& gateway) noexcept;
    int64_t win_age_ms(int64_t now_ms) const noexcept { return m_win.age_ms(now_ms); }
    int64_t terminal_age_ms(int64_t now_ms) const noexcept { return m_terminal.age_ms(now_ms); }
    // Whether both have turned within three seconds. `now_ms`: of zclock_mono.
    bool is_beating(int64_t now_ms) const noexcept
    {
        return win_age_ms(now_ms) < longest_pause_ms && terminal_age_ms(now_ms) < longest_pause_ms;
    }

private:
    loop_pulse m_win;
    loop_pulse m_terminal;
};

// Whether both servers serve, and nobody has asked the daemon to stop. Any thread.
bool is_serving(const services& gateway);

// Every link upstream: name, whether it is up, since when, how often, and why it was not. The debug broker is
// among them when it has ever been there. Any thread.
json links_json(const services& gateway);

class health {
public:
    explicit health(services& gateway) : m_gateway(gateway) {}

    void look() noexcept { m_pulse.ask(m_gateway); }
    page livez(const page_request& request) const;
    page readyz(const page_request& request) const;

private:
    services& m_gateway;
    actors_pulse m_pulse;
};

} // namespace rtls
