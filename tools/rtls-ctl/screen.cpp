#include "screen.h"

#include <fmt/format.h>

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
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

static bool is_continuation(char c)
{
    return (static_cast<uint8_t>(c) & 0xC0) == 0x80;
}

// How many bytes in front are one character that may be shown as it is; 0: none.
static size_t shown_as_it_is(std::string_view text)
{
    const auto first = static_cast<uint8_t>(text[0]);
    if (first < 0x80)
        return first >= 0x20 && first != 0x7F ? 1 : 0;
    const size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < size)
        return 0;
    if (first == 0xC2 && static_cast<uint8_t>(text[1]) < 0xA0) // C1 controls
        return 0;
    const auto rest = text.substr(1, size - 1);
    return std::all_of(rest.begin(), rest.end(), is_continuation) ? size : 0;
}

std::string printable(std::string_view text)
{
    std::string shown;
    while (!text.empty()) {
        const size_t size = shown_as_it_is(text);
        if (size == 0)
            shown += fmt::format("\\x{:02x}", static_cast<uint8_t>(text[0]));
        shown += text.substr(0, size);
        text.remove_prefix(std::max<size_t>(size, 1));
    }
    return shown;
}

size_t text_width(std::string_view text)
{
    return text.size() - static_cast<size_t>(std::count_if(text.begin(), text.end(), is_continuation));
}

} // namespace ctl
