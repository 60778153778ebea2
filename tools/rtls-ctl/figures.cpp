#include "rtls-ctl/figures.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace ctl {

static bool is_wanted(std::string_view metric, const std::vector<std::string>& wanted)
{
    return wanted.empty() || std::ranges::any_of(wanted, [&](const std::string& text) {
               return metric.find(text) != std::string_view::npos;
           });
}

static json figure_value(std::string_view text)
{
    json value = json::parse(text, nullptr, false);
    return value.is_number() ? value : json(text);
}

json read_figures(std::string_view page, const std::vector<std::string>& wanted)
{
    json figures = json::array();
    while (!page.empty()) {
        const std::string_view line = page.substr(0, page.find('\n'));
        page.remove_prefix(std::min(line.size() + 1, page.size()));
        const size_t blank = line.rfind(' '); // labels may have blanks, a value has none
        if (line.starts_with('#') || blank == std::string_view::npos ||
            !is_wanted(line.substr(0, blank), wanted))
            continue;
        figures.push_back(
            {{"metric", line.substr(0, blank)}, {"value", figure_value(line.substr(blank + 1))}});
    }
    return figures;
}

} // namespace ctl
