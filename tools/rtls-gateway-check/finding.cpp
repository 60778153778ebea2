#include "rtls-gateway-check/finding.h"

#include <algorithm>

namespace rtls::check {

std::string_view name_of(severity level) noexcept
{
    switch (level) {
    case severity::refused:
        return "refused";
    case severity::ends:
        return "ends";
    case severity::harm:
        return "harm";
    case severity::warning:
        break;
    }
    return "warning";
}

bool has_problem(const findings& found) noexcept
{
    return std::ranges::any_of(found, [](const finding& one) { return one.level != severity::warning; });
}

} // namespace rtls::check
