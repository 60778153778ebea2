#include "base/config.h"

#include "base/common.h"
#include "base/logger.h"
#include "base/null_check.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace rtls {

zconfig_t* config_new(const char* config_file_name)
{
    if (any_null(__func__, config_file_name))
        return nullptr;
    zconfig_t* config = zconfig_load(config_file_name);
    if (!config)
        logger_error(g_logger, "Error opening configuration file!");
    return config;
}

bool config_value_get(zconfig_t* config, const char* path, const char** res)
{
    if (any_null(__func__, config, path, res))
        return false;
    *res = zconfig_get(config, path, nullptr);
    if (!*res)
        logger_error(g_logger, "Parameter \"%s\" is not found in the configuration file!", path);
    return *res != nullptr;
}

bool config_value_long_get(zconfig_t* config, const char* path, int64_t* res)
{
    if (any_null(__func__, config, path, res))
        return false;
    const char* text = nullptr;
    if (!config_value_get(config, path, &text))
        return false;
    char* end = nullptr;
    errno = 0;
    *res = strtol(text, &end, 0);
    const bool out_of_range = errno == ERANGE && (*res == LONG_MAX || *res == LONG_MIN);
    if (out_of_range || (errno != 0 && *res == 0)) {
        log_system_call_error(__func__, "strtol");
        return false;
    }
    if (end == text) {
        logger_error(g_logger, "%s: strtol: No digits were found", __func__);
        return false;
    }
    return true;
}

bool config_value_uint16_t_get(zconfig_t* config, const char* path, uint16_t* res)
{
    if (any_null(__func__, config, path, res))
        return false;
    int64_t value = 0;
    if (!config_value_long_get(config, path, &value))
        return false;
    *res = static_cast<uint16_t>(value);
    return true;
}

bool config_value_bool_get(zconfig_t* config, const char* path, bool* res)
{
    if (any_null(__func__, config, path, res))
        return false;
    const char* text = nullptr;
    if (!config_value_get(config, path, &text))
        return false;
    switch (text[0]) {
    case 'y':
    case 'Y':
    case '1':
    case 't':
    case 'T':
        *res = true;
        return true;
    case 'n':
    case 'N':
    case '0':
    case 'f':
    case 'F':
        *res = false;
        return true;
    default:
        return false;
    }
}

void config_destroy(zconfig_t** p_config)
{
    if (any_null(__func__, p_config))
        return;
    zconfig_destroy(p_config); // does nothing to a null tree
}

} // namespace rtls
