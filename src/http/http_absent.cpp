// In the place of http_server.cpp in a daemon that is built without the HTTP door.
#include "http/http_server.h"

#include "base/logger.h"

namespace rtls {

struct http_server::state {};

// NOLINTNEXTLINE(performance-unnecessary-value-param): as the one that keeps them takes them
http_server::http_server(services& /*gateway*/, http_rules /*rules*/) {}

http_server::~http_server() = default;

bool http_server::open()
{
    logger_error(g_logger, "http: this daemon is built without it!");
    return false;
}

} // namespace rtls
