#include "terminal/request.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace rtls {

std::optional<uint16_t> get_short_val_from_str(const char* str_value)
{
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(str_value, &end, 16);
    if (errno == ERANGE && (value == LONG_MAX || value == LONG_MIN))
        return std::nullopt;
    if ((errno != 0 && value == 0) || end == str_value)
        return std::nullopt;
    return static_cast<uint16_t>(value);
}

} // namespace rtls
