#include "http/time_text.h"

#include <array>
#include <cstdio>
#include <ctime>

namespace rtls {

std::string utc_text(int64_t ms)
{
    const time_t seconds = ms / 1000;
    tm utc{};
    (void)gmtime_r(&seconds, &utc);
    std::array<char, 32> date{};
    const size_t size = strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &utc);
    std::array<char, 8> rest{};
    (void)snprintf(rest.data(), rest.size(), ".%03uZ", static_cast<unsigned>(ms % 1000) % 1000);
    return std::string{date.data(), size} + rest.data();
}

} // namespace rtls
