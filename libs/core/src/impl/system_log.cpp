#include "impl/system_log.h"

namespace tav::libs::core {

namespace {

constexpr int every_priority = LOG_UPTO(LOG_DEBUG);
constexpr int all_but_debug = LOG_UPTO(LOG_INFO);

} // namespace

system_log::system_log(std::string_view name) : m_name(name)
{
    set_debug(false);
}

system_log::~system_log()
{
    closelog();
}

void system_log::set_debug(bool on)
{
    closelog();
    openlog(m_name.c_str(), on ? LOG_PERROR : 0, LOG_USER);
    setlogmask(on ? every_priority : all_but_debug);
}

void system_log::write(int priority, const std::string& line)
{
    syslog(priority, "%s", line.c_str());
}

} // namespace tav::libs::core
