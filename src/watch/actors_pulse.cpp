#include "watch/actors_pulse.h"

#include "server/win_server.h"
#include "terminal/terminal_server.h"

#include <czmq.h>

namespace rtls {

actors_pulse::actors_pulse(const services& gateway) noexcept : m_gateway(gateway), m_made_ms(zclock_mono()) {}

static int64_t age_ms(const loop_pulse& pulse, int64_t made_ms, int64_t now_ms)
{
    const int64_t last_ms = pulse.last_ms();
    return now_ms - (last_ms == loop_pulse::none ? made_ms : last_ms);
}

int64_t actors_pulse::win_age_ms(int64_t now_ms) const noexcept
{
    return age_ms(win_server_pulse(*m_gateway.win_server), m_made_ms, now_ms);
}

int64_t actors_pulse::terminal_age_ms(int64_t now_ms) const noexcept
{
    return age_ms(terminal_server_figures(*m_gateway.terminal_server).counts.pulse, m_made_ms, now_ms);
}

} // namespace rtls
