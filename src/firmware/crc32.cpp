#include "firmware/crc32.h"

#include "base/null_check.h"

#include <zlib.h>

namespace rtls {

uint32_t crc32_byte(const uint8_t* p, uint32_t bytelength)
{
    if (any_null(__func__, p))
        return 0;
    return static_cast<uint32_t>(crc32_z(0, p, bytelength));
}

// The library inverts what it is given and what it returns.
uint32_t crc32_uninverted(bytes_view bytes)
{
    return ~static_cast<uint32_t>(crc32_z(0xFFFFFFFFU, bytes.data(), bytes.size()));
}

} // namespace rtls
