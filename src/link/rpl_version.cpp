#include "link/rpl_version.h"

namespace rtls {

uint8_t get_next_rpl_version(void)
{
    static uint8_t next = 240;
    const uint8_t version = next++; // 255 is followed by 0
    if (version == 127)
        next = 0;
    return version;
}

} // namespace rtls
