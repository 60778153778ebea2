// Numbers that do not fit together: bridges, and what the daemon and the system let in.
#include "net/descriptors.h"
#include "rtls-gateway-check/check.h"

#include <fmt/format.h>

#include <algorithm>

namespace rtls::check {

static constexpr std::string_view backlog_key = "ports/win_backlog";
static constexpr std::string_view bound_key = "ports/win_connections";

// A bound beyond this is none.
static constexpr int64_t most_peers = 1'000'000'000;

// How many bridges there are going to be: as whoever asks has said, or as many as are let in. 0: unknown.
static int64_t bridges_of(const inspection& at)
{
    return std::min(at.options.bridges.value_or(at.effective.number(bound_key)), most_peers);
}

// What falls short of a number that was given is wrong; of the bound, it may never matter.
static severity severity_of_shortage(const inspection& at)
{
    return at.options.bridges ? severity::harm : severity::warning;
}

static void check_bound(inspection& at)
{
    const int64_t bound = at.effective.number(bound_key);
    if (at.options.bridges && bound != 0 && bound < *at.options.bridges)
        at.add(severity::harm, "limit", bound_key,
               fmt::format("{} of {} bridges are refused", *at.options.bridges - bound, *at.options.bridges),
               fmt::format("write {} or more", *at.options.bridges));
}

static void check_backlog(inspection& at)
{
    const int64_t bridges = bridges_of(at);
    const int64_t backlog = at.effective.number(backlog_key);
    if (backlog < bridges)
        at.add(severity_of_shortage(at), "limit", backlog_key,
               fmt::format(
                   "when all {} bridges reconnect at once, {} may wait: many of the others are not served",
                   bridges, backlog),
               fmt::format("write \"win_backlog = {}\" below \"ports\"", std::max<int64_t>(bridges, 1024)));
}

static void check_waiting(inspection& at)
{
    const auto most = at.options.machine->most_waiting();
    const int64_t backlog = at.effective.number(backlog_key);
    if (most && *most < backlog)
        at.add(severity::warning, "limit", backlog_key,
               fmt::format("the system lets {} connections wait, not {}", *most, backlog),
               fmt::format("sysctl net.core.somaxconn={}", backlog));
}

static void check_files(inspection& at)
{
    const auto most = at.options.machine->most_files();
    const int64_t operators = std::min(at.effective.number("ports/terminal_connections"), most_peers);
    const auto needed = static_cast<uint64_t>(bridges_of(at) + operators) + descriptors_needed;
    if (!most || *most >= needed)
        return;
    const std::string remedy = fmt::format("LimitNOFILE={} in the unit, or ulimit -Hn", needed);
    if (*most < descriptors_needed)
        at.add(severity::refused, "limit", "", size_t{0},
               fmt::format("{} open files are allowed: the daemon does not start with fewer than {}", *most,
                           descriptors_needed),
               remedy);
    else
        at.add(severity_of_shortage(at), "limit", "", size_t{0},
               fmt::format("{} open files are allowed (as a hard limit), {} may be needed", *most, needed),
               remedy);
}

static void check_per_address(inspection& at, std::string_view bound, std::string_view per_address)
{
    const int64_t all = at.effective.number(bound);
    if (all != 0 && at.effective.number(per_address) > all)
        at.add(severity::warning, "limit", per_address,
               fmt::format("it never matters: {} are let in from all addresses together", all),
               "make it smaller, or take it out");
}

void check_limits(inspection& at)
{
    check_bound(at);
    check_backlog(at);
    check_per_address(at, bound_key, "ports/win_connections_per_address");
    check_per_address(at, "ports/terminal_connections", "ports/terminal_connections_per_address");
    if (at.options.machine) {
        check_waiting(at);
        check_files(at);
    }
}

} // namespace rtls::check
