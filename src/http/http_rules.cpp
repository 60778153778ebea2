#include "http/http_rules.h"

#include "base/logger.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string_view>

namespace rtls {

static constexpr size_t longest_token = 4096;

static bool refuse(const char* key, const char* expected)
{
    logger_error(g_logger, "The parameter \"http/%s\" is no %s!", key, expected);
    return false;
}

static bool read_port(zconfig_t* section, uint16_t& port)
{
    const char* text = zconfig_get(section, "port", "");
    char* end = nullptr;
    errno = 0;
    const long number = strtol(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0' || number < 1 || number > UINT16_MAX)
        return refuse("port", "port");
    port = static_cast<uint16_t>(number);
    return true;
}

static bool read_address(zconfig_t* section, std::string& address)
{
    const char* text = zconfig_get(section, "address", nullptr);
    if (!text)
        return true;
    in_addr parsed{};
    if (strcmp(text, "*") != 0 && inet_pton(AF_INET, text, &parsed) != 1)
        return refuse("address", "IPv4 address");
    address = text;
    return true;
}

// The file's first word; what follows it is the editor's line end.
static bool read_token(zconfig_t* section, std::string& token)
{
    const char* file_name = zconfig_get(section, "token", nullptr);
    if (!file_name)
        return true;
    std::ifstream file{file_name};
    file.width(longest_token + 1);
    file >> token;
    const bool is_token = file && token.size() <= longest_token &&
                          std::ranges::all_of(token, [](char c) { return c > ' ' && c < 0x7F; }) &&
                          (file >> std::ws).eof();
    return is_token || refuse("token", "file with a token");
}

bool read_http_rules(zconfig_t* config, std::optional<http_rules>& rules)
{
    zconfig_t* section = zconfig_locate(config, "http");
    if (!section)
        return true;
    http_rules& read = rules.emplace();
    return read_port(section, read.port) && read_address(section, read.address) &&
           read_token(section, read.token);
}

} // namespace rtls
