#include "base/logger.h"

#include "base/common.h"

#include <syslog.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace rtls {

tav_logger g_logger_ctx;
tav_component_logger g_logger;
tav_component_logger* g_logger_section;

// For a system log that nobody reads.
static constexpr unsigned flush_timeout_ms = 2000;

static size_t get_longest_section_lenght() // "lenght": sic
{
    size_t longest = 0;
    for (const char* name : dbg_section_name)
        longest = std::max(longest, strlen(name));
    return longest;
}

// Fills buffer[size] with the section's name, padded with blanks and terminated: operators read the
// sections' records in columns.
static void get_section_name(size_t index, char* buffer, size_t size)
{
    std::memset(buffer, ' ', size);
    buffer[size - 1] = '\0';
    std::memcpy(buffer, dbg_section_name[index], strlen(dbg_section_name[index]));
}

static tav_component_logger create_section_logger(size_t index)
{
    const size_t size = get_longest_section_lenght() + 1;
    const std::unique_ptr<char[]> name{new (std::nothrow) char[size]};
    if (!name)
        return nullptr;
    get_section_name(index, name.get(), size);
    return create_component_logger(g_logger_ctx, name.get());
}

static bool create_section_loggers()
{
    g_logger_section = new (std::nothrow) tav_component_logger[DBG_SECTIONS_NUMBER]{};
    if (!g_logger_section)
        return false;
    for (size_t i = 0; i < DBG_SECTIONS_NUMBER; ++i) {
        g_logger_section[i] = create_section_logger(i);
        if (!g_logger_section[i])
            return false;
    }
    return true;
}

bool logger_init(const char* project_name)
{
    g_logger_ctx = create_logger(project_name);
    if (!g_logger_ctx) {
        // Nobody has opened the system log yet.
        openlog(project_name, LOG_PERROR, LOG_USER);
        setlogmask(LOG_UPTO(LOG_DEBUG));
        syslog(LOG_ERR, str_out_of_memory, __func__);
        return false;
    }
    g_logger = create_component_logger(g_logger_ctx, "main");
    if (!g_logger) {
        // From here on libc's functions are the logger's: who calls them waits for as long as it does.
        if (logger_flush(g_logger_ctx, flush_timeout_ms))
            syslog(LOG_ERR, str_out_of_memory, __func__);
        return false;
    }
    if (!create_section_loggers()) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return false;
    }
    return true;
}

void logger_cleanup(void)
{
    if (g_logger_section)
        std::for_each_n(g_logger_section, DBG_SECTIONS_NUMBER, destroy_component_logger);
    delete[] g_logger_section;
    g_logger_section = nullptr;
    destroy_component_logger(g_logger);
    g_logger = nullptr;
    destroy_logger(g_logger_ctx);
    g_logger_ctx = nullptr;
}

} // namespace rtls
