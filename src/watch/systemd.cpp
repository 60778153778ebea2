#include "watch/systemd.h"

#include <systemd/sd-daemon.h>

#include <cstdlib>

namespace rtls {

bool systemd_listens()
{
    return std::getenv("NOTIFY_SOCKET") != nullptr;
}

void systemd_tell(const char* state)
{
    (void)sd_notify(0, state);
}

int64_t systemd_watchdog_ms()
{
    uint64_t period_us = 0;
    if (sd_watchdog_enabled(0, &period_us) <= 0)
        return 0;
    return static_cast<int64_t>(period_us / 1000);
}

} // namespace rtls
