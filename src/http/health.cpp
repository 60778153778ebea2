#include "http/health.h"

#include "base/logger.h"
#include "base/signals.h"
#include "http/time_text.h"
#include "server/win_server.h"
#include "terminal/terminal_server.h"

#include <cstdint>
#include <utility>

namespace rtls {

bool is_serving(const services& gateway)
{
    return !is_stop_requested() && win_server_is_ready(gateway.win_server) &&
           terminal_server_is_ready(gateway.terminal_server);
}

template <typename State>
static json link_json(const char* name, const State& state)
{
    return {{"name", name},
            {"up", state.is_up},
            {"since", state.since_ms == 0 ? json(nullptr) : json(utc_text(state.since_ms))},
            {"connections", state.connections},
            {"failures", state.failures},
            {"last_reason", *state.last_reason ? json(state.last_reason) : json(nullptr)}};
}

json links_json(const services& gateway)
{
    json links = json::array();
    for (const auto& [name, state] : win_server_links(*gateway.win_server))
        links.push_back(link_json(name, state));
    const tav_link_state broker = logger_get_broker_state(g_logger_ctx);
    if (broker.is_up || broker.since_ms != 0 || broker.failures != 0)
        links.push_back(link_json("debug broker", broker));
    return links;
}

static json loop_check(const char* name, int64_t age_ms)
{
    return {{"name", name}, {"ok", age_ms < actors_pulse::longest_pause_ms}, {"turned_ms_ago", age_ms}};
}

static json log_check()
{
    const tav_log_counters lines = logger_get_counters(g_logger_ctx);
    return {{"name", "log thread"},
            {"ok", logger_thread_lives(g_logger_ctx)},
            {"lines_waiting", lines.queued > lines.written ? lines.queued - lines.written : 0}};
}

static bool are_ok(const json& checks)
{
    for (const json& check : checks)
        if (!check["ok"].get<bool>())
            return false;
    return true;
}

// 200 when every check is ok, else 503; the checks themselves, or those that are not ok.
static page verdict(json checks, bool is_verbose)
{
    const bool is_ok = are_ok(checks);
    json shown = json::array();
    for (json& check : checks)
        if (is_verbose || !check["ok"].get<bool>())
            shown.push_back(std::move(check));
    return {is_ok ? 200 : 503,
            json_text({{"status", is_ok ? "ok" : "unavailable"}, {"checks", std::move(shown)}})};
}

static bool is_verbose(const page_request& request)
{
    return request.parameters.contains("verbose");
}

page health::livez(const page_request& request) const
{
    const int64_t now = zclock_mono();
    json checks = json::array();
    checks.push_back(loop_check("WIN server loop", m_pulse.win_age_ms(now)));
    checks.push_back(loop_check("terminal server loop", m_pulse.terminal_age_ms(now)));
    checks.push_back(log_check());
    return verdict(std::move(checks), is_verbose(request));
}

page health::readyz(const page_request& request) const
{
    json checks = json::array();
    checks.push_back({{"name", "serving"}, {"ok", is_serving(m_gateway)}});
    for (const auto& [name, state] : win_server_links(*m_gateway.win_server)) {
        json check = link_json(name, state);
        check["ok"] = state.is_up;
        checks.push_back(std::move(check));
    }
    return verdict(std::move(checks), is_verbose(request));
}

} // namespace rtls
