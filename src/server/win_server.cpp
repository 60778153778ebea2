// win_server - construction from the configuration, and the operations on the table of clients.
// The actor itself stands in win_server_actor.cpp.
#include "server/win_server.h"

#include "base/config.h"
#include "base/czmq_ptr.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "base/peer.h"
#include "link/win_server_private.h"
#include "server/win_server_actor.h"
#include "uplink/messages.h"

#include <climits>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <utility>

namespace rtls {

static std::string make_endpoint(const char* address, uint16_t port)
{
    return "tcp://" + std::string{address} + ':' + std::to_string(port);
}

// An optional key, read without config_value_get so that its absence logs nothing.
static void read_backlog(zconfig_t* config, WIN_SERVER_t& server)
{
    const char* text = zconfig_get(config, "ports/win_backlog", nullptr);
    if (!text)
        return;
    char* end = nullptr;
    const long backlog = strtol(text, &end, 0);
    if (end == text || backlog <= 0 || backlog > INT_MAX)
        logger_warning(g_logger, "%s: ports/win_backlog is no positive number, the library's default is used",
                       "win_server_new");
    else
        server.win_backlog = static_cast<int>(backlog);
}

// The keys in the order in which the first missing one is reported.
static bool read_config(zconfig_t* config, WIN_SERVER_t& server)
{
    const char* proxy_address = nullptr;
    const char* handler_address = nullptr;
    uint16_t proxy_port = 0;
    uint16_t proxy_input_port = 0;
    uint16_t handler_port = 0;
    if (!config_value_uint16_t_get(config, "ports/win", &server.win_port) ||
        !config_value_uint16_t_get(config, "ports/discovery", &server.discovery_port) ||
        !config_value_get(config, "pub_sub_proxy/address", &proxy_address) ||
        !config_value_uint16_t_get(config, "pub_sub_proxy/port", &proxy_port) ||
        !config_value_uint16_t_get(config, "pub_sub_proxy/input_port", &proxy_input_port) ||
        !config_value_get(config, "message_handler/address", &handler_address) ||
        !config_value_uint16_t_get(config, "message_handler/port", &handler_port))
        return false;
    read_backlog(config, server);
    if (!read_door_rules(config, "win", server.win_door.rules) ||
        !read_door_address(config, "discovery", server.discovery_address) ||
        !server.certificates.read(config) || !server.tap.read(config))
        return false;
    server.proxy_full_address = make_endpoint(proxy_address, proxy_port);
    server.proxy_full_input_address = make_endpoint(proxy_address, proxy_input_port);
    server.msg_handler_full_address = make_endpoint(handler_address, handler_port);
    return true;
}

void* win_server_new(zconfig_t* config, void* p_rtls_gateway)
{
    if (any_null(__func__, config, p_rtls_gateway))
        return nullptr;
    win_server_ptr server{new (std::nothrow) WIN_SERVER_t{}};
    if (!server) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return nullptr;
    }
    server->rtls_gateway = static_cast<services*>(p_rtls_gateway);
    server->process_frame = process_data_from_win_client;
    if (!server->clients.is_made()) {
        log_call_error(__func__, "zhashx_new");
        return nullptr;
    }
    try {
        if (!read_config(config, *server))
            return nullptr;
    } catch (const std::bad_alloc&) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return nullptr;
    }
    return server.release();
}

bool win_server_run(void* p_win_server)
{
    auto* server = static_cast<WIN_SERVER_t*>(p_win_server);
    if (any_null(__func__, server))
        return false;
    if (server->actor) {
        log_call_error(__func__, "trying to run the running win server");
        return false;
    }
    server->actor.reset(zactor_new(win_server_actor, server));
    if (!server->actor)
        log_call_error(__func__, "zactor_new");
    return server->actor != nullptr;
}

void win_server_destroy(void** pp_win_server)
{
    if (any_null(__func__, pp_win_server))
        return;
    auto* server = static_cast<WIN_SERVER_t*>(*pp_win_server);
    if (!server)
        return;
    server->actor.reset(); // waits until the actor's thread has closed its sockets
    delete server;
    *pp_win_server = nullptr;
}

zhashx_t* win_server_get_clients(void* p_win_server)
{
    if (any_null(__func__, p_win_server))
        return nullptr;
    return static_cast<WIN_SERVER_t*>(p_win_server)->clients.unguarded();
}

bool win_server_is_ready(void* p_win_server)
{
    if (any_null(__func__, p_win_server))
        return false;
    return static_cast<WIN_SERVER_t*>(p_win_server)->ready;
}

std::vector<win_client_info> win_server_copy_clients(WIN_SERVER_t& server)
try {
    return server.clients.copy();
} catch (const std::bad_alloc&) {
    logger_error(g_logger, str_out_of_memory, __func__);
    return {};
}

std::vector<win_client_info> win_server_copy_clients_in_slices(WIN_SERVER_t& server)
{
    return server.clients.copy_in_slices();
}

std::optional<win_client_info> win_server_find_client(WIN_SERVER_t& server, bytes_view identity) noexcept
{
    return server.clients.find_info(identity);
}

const loop_pulse& win_server_pulse(const WIN_SERVER_t& server) noexcept
{
    return server.pulse;
}

std::array<named_link_state, 3> win_server_links(const WIN_SERVER_t& server)
{
    const auto named = [](const link_watch& link) { return named_link_state{link.name(), link.state()}; };
    return {named(server.msg_handler_link), named(server.proxy_link), named(server.proxy_input_link)};
}

bool win_server_post(WIN_SERVER_t& server, std::function<void()> call) noexcept
{
    return server.calls_of_strangers.post(std::move(call));
}

} // namespace rtls
