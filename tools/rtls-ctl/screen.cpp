#include "rtls-ctl/screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>

namespace ctl {

static std::string_view variable_text(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

static size_t window_width(FILE* out)
{
    constexpr size_t usual = 80;
    winsize window{};
    const bool is_known = ioctl(fileno(out), TIOCGWINSZ, &window) == 0 && window.ws_col > 0;
    return is_known ? window.ws_col : usual;
}

screen screen_of(FILE* out, size_t wanted_width)
{
    screen it;
    const std::string_view kind = variable_text("TERM");
    const bool is_terminal = isatty(fileno(out)) != 0;
    it.redraws = is_terminal && !kind.empty() && kind != "dumb";
    it.has_colours = it.redraws && variable_text("NO_COLOR").empty();
    if (wanted_width > 0)
        it.width = wanted_width;
    else if (is_terminal)
        it.width = window_width(out);
    return it;
}

} // namespace ctl
