// In the place of systemd.cpp in a daemon that is built without systemd's library.
#include "watch/systemd.h"

namespace rtls {

bool systemd_listens()
{
    return false;
}

void systemd_tell(const char* /*state*/) {}

int64_t systemd_watchdog_ms()
{
    return 0;
}

} // namespace rtls
