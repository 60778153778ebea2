#include "console.h"

#include "wire.h"

#include <fmt/format.h>

#include <sys/ioctl.h>
#include <unistd.h>

#include <ctime>

namespace sim {

using namespace std::chrono_literals;

static constexpr auto counters_interval = 5s; // where they cannot be redrawn in place
static constexpr size_t buffer_size = 65'536;

console::console(console_options options, FILE* out)
    : out_(out), options_(options), is_terminal_(isatty(fileno(out)) != 0)
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
    if (options_.lines_per_second == 0)
        return true;
    const auto now = std::chrono::steady_clock::now();
    if (now - second_ >= 1s) {
        second_ = now;
        lines_this_second_ = 0;
        if (not_shown_ > 0)
            print_locked(fmt::format("... {} more lines not shown (--lines, --quiet)", not_shown_));
        not_shown_ = 0;
    }
    return lines_this_second_ < options_.lines_per_second;
}

bool console::wants_traffic()
{
    if (options_.quiet)
        return false;
    const std::scoped_lock lock{mutex_};
    if (within_budget_locked())
        return true;
    ++not_shown_;
    return false;
}

void console::traffic(std::string_view line)
{
    if (options_.quiet)
        return;
    const std::scoped_lock lock{mutex_};
    ++lines_this_second_;
    print_locked(line);
}

void console::notice(std::string_view line)
{
    const std::scoped_lock lock{mutex_};
    print_locked(line);
}

void console::counters(std::string_view line)
{
    const std::scoped_lock lock{mutex_};
    counters_ = line;
    const auto now = std::chrono::steady_clock::now();
    if (is_terminal_) {
        draw_counters_locked();
    } else if (now - counters_printed_ >= counters_interval) {
        print_locked(counters_);
        counters_printed_ = now;
    }
}

bool console::flush()
{
    const std::scoped_lock lock{mutex_};
    return std::fflush(out_) == 0;
}

void console::finish()
{
    const std::scoped_lock lock{mutex_};
    erase_counters_locked();
    counters_.clear();
    std::fflush(out_);
}

void console::print_locked(std::string_view line)
{
    erase_counters_locked();
    std::fwrite(line.data(), 1, line.size(), out_);
    std::fputc('\n', out_);
}

void console::erase_counters_locked()
{
    if (counters_drawn_)
        std::fputs("\r\033[K", out_);
    counters_drawn_ = false;
}

// Cut to the window's width: a line that wraps could not be erased again.
void console::draw_counters_locked()
{
    winsize window{};
    if (counters_.empty() || ioctl(fileno(out_), TIOCGWINSZ, &window) != 0)
        return;
    const size_t width = window.ws_col > 0 ? window.ws_col : 80;
    fmt::print(out_, "\r\033[K\033[7m{:.{}}\033[0m", counters_, width - 1);
    counters_drawn_ = true;
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
