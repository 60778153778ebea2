#include "watch/actors_pulse.h"

#include "server/win_server.h"
#include "terminal/terminal_server.h"

#include <functional>
#include <utility>

namespace rtls {

void actors_pulse::ask(services& gateway) noexcept
{
    m_win.ask(
        [&](std::function<void()> call) { (void)win_server_post(*gateway.win_server, std::move(call)); });
    m_terminal.ask([&](std::function<void()> call) {
        (void)terminal_server_post(*gateway.terminal_server, std::move(call));
    });
}

} // namespace rtls
