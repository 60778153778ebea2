#include "rtls-sim/console.h"

#include "common/output.h"
#include "rtls-sim/wire.h"

#include <fmt/format.h>

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

namespace sim {

using namespace std::chrono_literals;

static constexpr auto counters_interval = 5s; // where they cannot be redrawn in place
static constexpr size_t buffer_size = 65'536;

console::console(console_options options, FILE* out)
    : m_out(out), m_options(options), m_is_terminal(isatty(fileno(out)) != 0)
{
    // Lines and counters reach the screen together, at the next flush: the counters do not flicker.
    std::setvbuf(out, nullptr, _IOFBF, buffer_size);
}

console::~console()
{
    finish();
}

// The budget starts anew every second; what it kept back is told once.
bool console::within_budget_locked()
{
    if (m_options.lines_per_second == 0)
        return true;
    const auto now = std::chrono::steady_clock::now();
    if (now - m_second >= 1s) {
        m_second = now;
        m_lines_this_second = 0;
        if (m_not_shown > 0)
            print_locked(fmt::format("... {} more lines not shown (--lines, --quiet)", m_not_shown));
        m_not_shown = 0;
    }
    return m_lines_this_second < m_options.lines_per_second;
}

bool console::wants_traffic()
{
    if (m_options.quiet)
        return false;
    const std::scoped_lock lock{m_mutex};
    if (within_budget_locked())
        return true;
    ++m_not_shown;
    return false;
}

void console::traffic(std::string_view line)
{
    if (m_options.quiet)
        return;
    const std::scoped_lock lock{m_mutex};
    ++m_lines_this_second;
    print_locked(line);
}

void console::notice(std::string_view line)
{
    const std::scoped_lock lock{m_mutex};
    print_locked(line);
}

void console::counters(std::string_view line)
{
    const std::scoped_lock lock{m_mutex};
    m_counters = line;
    const auto now = std::chrono::steady_clock::now();
    if (m_is_terminal) {
        draw_counters_locked();
    } else if (now - m_counters_printed >= counters_interval) {
        print_locked(m_counters);
        m_counters_printed = now;
    }
}

bool console::flush()
{
    const std::scoped_lock lock{m_mutex};
    if (m_reader_left)
        return false;
    if (std::fflush(m_out) == 0 && std::ferror(m_out) == 0)
        return true;
    if (errno != EPIPE)
        throw tools::output_error(std::string{"cannot write the output: "} + std::strerror(errno));
    m_reader_left = true;
    return false;
}

void console::finish()
{
    const std::scoped_lock lock{m_mutex};
    erase_counters_locked();
    m_counters.clear();
    std::fflush(m_out);
}

void console::print_locked(std::string_view line)
{
    erase_counters_locked();
    std::fwrite(line.data(), 1, line.size(), m_out);
    std::fputc('\n', m_out);
}

void console::erase_counters_locked()
{
    if (m_counters_drawn)
        std::fputs("\r\033[K", m_out);
    m_counters_drawn = false;
}

// Cut to the window's width: a line that wraps could not be erased again.
void console::draw_counters_locked()
{
    winsize window{};
    if (m_counters.empty() || ioctl(fileno(m_out), TIOCGWINSZ, &window) != 0)
        return;
    const size_t width = window.ws_col > 0 ? window.ws_col : 80;
    fmt::print(m_out, "\r\033[K\033[7m{:.{}}\033[0m", m_counters, width - 1);
    m_counters_drawn = true;
}

std::string wall_clock()
{
    const uint64_t now = realtime_ns();
    const auto seconds = static_cast<time_t>(now / 1'000'000'000U);
    tm local{};
    localtime_r(&seconds, &local);
    return fmt::format("{:02}:{:02}:{:02}.{:03}", local.tm_hour, local.tm_min, local.tm_sec,
                       now / 1'000'000U % 1000U);
}

} // namespace sim
