#include "rtls-gateway-check/check.h"

#include <algorithm>
#include <limits>

namespace rtls::check {

void inspection::add(severity level, std::string_view kind, std::string_view key, size_t line,
                     std::string text, std::string remedy)
{
    found.push_back({level, std::string{kind}, std::string{key}, line, std::move(text), std::move(remedy)});
}

void inspection::add(severity level, std::string_view kind, std::string_view key, std::string text,
                     std::string remedy)
{
    add(level, kind, key, effective.line(key), std::move(text), std::move(remedy));
}

static void check_syntax(inspection& at)
{
    for (const zpl_fault& fault : at.file.faults)
        at.add(severity::refused, "syntax", "", fault.line, fault.text, fault.remedy);
}

static size_t place_of(const finding& one)
{
    return one.line != 0 ? one.line : std::numeric_limits<size_t>::max();
}

findings check_configuration(const zpl_file& file, const check_options& options)
{
    inspection at{file, options};
    check_syntax(at);
    check_names(at);
    check_values(at);
    check_links(at);
    check_curve(at);
    check_doors(at);
    check_limits(at);
    check_pid_file(at);
    std::ranges::stable_sort(at.found, {}, place_of);
    return std::move(at.found);
}

} // namespace rtls::check
