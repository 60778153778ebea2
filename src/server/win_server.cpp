// win_server - construction from the configuration, and the operations on the table of clients.
// The actor itself stands in win_server_actor.cpp.
#include "server/win_server.h"

#include "base/config.h"
#include "base/czmq_ptr.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "base/peer.h"
#include "link/win_server_private.h"
#include "wire/messaging.h"
#include "wire/slip.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>

namespace rtls {

using win_server_ptr = std::unique_ptr<void, destroyed_by<win_server_destroy>>;

static constexpr char endpoint_prefix[] = "tcp://";

// The endpoint in a text of its own, or null with a log line.
static char* make_endpoint(const char* address, uint16_t port)
{
    const size_t length = strlen(endpoint_prefix) + strlen(address) + 10; // colon, port, end
    char* endpoint = static_cast<char*>(std::malloc(length));
    if (endpoint)
        snprintf(endpoint, length, "%s%s:%u", endpoint_prefix, address, port);
    else
        logger_error(g_logger, str_out_of_memory, "win_server_new");
    return endpoint;
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
    server.proxy_full_address = make_endpoint(proxy_address, proxy_port);
    server.proxy_full_input_address = make_endpoint(proxy_address, proxy_input_port);
    server.msg_handler_full_address = make_endpoint(handler_address, handler_port);
    return server.proxy_full_address && server.proxy_full_input_address && server.msg_handler_full_address;
}

void* win_server_new(zconfig_t* config, void* p_rtls_gateway)
{
    if (any_null(__func__, config, p_rtls_gateway))
        return nullptr;
    auto* server = new (std::nothrow) WIN_SERVER_t{};
    win_server_ptr owner{server};
    if (!server) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return nullptr;
    }
    server->rtls_gateway = static_cast<services*>(p_rtls_gateway);
    if (!read_config(config, *server))
        return nullptr;
    server->clients = zhashx_new();
    if (!server->clients) {
        log_call_error(__func__, "zhashx_new");
        return nullptr;
    }
    zhashx_set_destructor(server->clients, win_client_destroy);
    return owner.release();
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
    server->actor = zactor_new(win_server_actor, server);
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
    zactor_destroy(&server->actor); // waits until the actor's thread has closed its sockets
    zhashx_destroy(&server->clients);
    std::free(server->proxy_full_address);
    std::free(server->proxy_full_input_address);
    std::free(server->msg_handler_full_address);
    delete server;
    *pp_win_server = nullptr;
}

zhashx_t* win_server_get_clients(void* p_win_server)
{
    if (any_null(__func__, p_win_server))
        return nullptr;
    return static_cast<WIN_SERVER_t*>(p_win_server)->clients;
}

bool win_server_is_ready(void* p_win_server)
{
    if (any_null(__func__, p_win_server))
        return false;
    return static_cast<WIN_SERVER_t*>(p_win_server)->ready;
}

// The command's type is little-endian, as all that bridges are sent.
static std::array<uint8_t, msgGeneric_t::size> update_command()
{
    std::array<uint8_t, msgGeneric_t::size> message{};
    store_le16(message, msgGeneric_t::msgType, MSG_UPDATE_CMD);
    return message;
}

static void update_command_to_all(WIN_SERVER_t& server)
{
    const auto message = update_command();
    std::array<uint8_t, slip_encoded_limit(msgGeneric_t::size)> encoded{};
    const bytes_view frame{encoded.data(), slip_encode(message, encoded.data())};
    // By record and not by identity: a look-up would move the table's one cursor.
    for (void* item = zhashx_first(server.clients); item; item = zhashx_next(server.clients)) {
        auto* client = static_cast<WIN_CLIENT_t*>(item);
        client->firmware_updated = false;
        encoded_to_win_client(&server, client, frame);
        dbg_print(server.dbg_client_sock, DBG_PARSING, "UPDATE",
                  "send cmd: MSG_UPDATE_CMD to brige: %s", // sic
                  ipv4_text{client->addr}.c_str());
    }
}

void win_server_nodes_update(void* p_win_server, zframe_t* client_id)
{
    auto* server = static_cast<WIN_SERVER_t*>(p_win_server);
    if (any_null(__func__, server))
        return;
    if (!client_id) {
        update_command_to_all(*server);
        return;
    }
    const auto message = update_command();
    data_to_win_client(server, client_id, message.data(), message.size());
    dbg_print(server->dbg_client_sock, DBG_PARSING, "UPDATE", "send cmd: MSG_UPDATE_CMD to current node");
}

WIN_CLIENT_t* win_server_find_client(WIN_SERVER_t* server, const char* key)
{
    if (any_null(__func__, server, key))
        return nullptr;
    // Only the actor deletes clients, so that what is found outlives the lock.
    const std::lock_guard guard{server->clients_mutex};
    return static_cast<WIN_CLIENT_t*>(zhashx_lookup(server->clients, key));
}

// Closes the connection by an empty frame after its identity. Without the identity the empty frame
// would itself be taken for one, so it is not sent then.
static void close_connection(WIN_SERVER_t& server, zframe_t* client_id, const WIN_CLIENT_t* client)
{
    // A client with a backlog is known not to read: waiting for it would stall all the others.
    const bool stalled = client && zlist_size(client->unsent_messages) > 0;
    const int flags = ZFRAME_MORE | ZFRAME_REUSE | (stalled ? ZFRAME_DONTWAIT : 0);
    if (zframe_send(&client_id, server.win_sock, flags) == 0)
        zstr_sendm(server.win_sock, "");
    else if (errno != EAGAIN)
        log_call_error("delete_win_client", "zframe_send");
    else if (client) // its queue is full, so that the stream socket cannot close it
        cut_connection(client->fd, client->addr);
}

void delete_win_client(WIN_SERVER_t* server, zframe_t* client_id)
{
    if (any_null(__func__, server, client_id) || any_null(__func__, server->win_sock))
        return;
    const identity_key key{client_id}; // client_id may go with the record
    close_connection(*server, client_id, win_server_find_client(server, key.c_str()));
    server->closed_ids.remember(key.c_str());
    const std::lock_guard guard{server->clients_mutex};
    zhashx_delete(server->clients, key.c_str());
}

void win_client_set_mac_addr(WIN_SERVER_t* server, WIN_CLIENT_t* client, const uint8_t* mac)
{
    if (any_null(__func__, server, client, mac))
        return;
    const std::lock_guard guard{server->clients_mutex};
    std::memcpy(client->mac_addr, mac, mac_size);
}

// Copies what other threads may know. The list must not destroy the records with it.
static void copy_clients_locked(WIN_SERVER_t& server, std::vector<win_client_info>& copies)
{
    const zlistx_ptr records{zhashx_values(server.clients)};
    if (!records)
        return;
    zlistx_set_destructor(records.get(), nullptr);
    zlistx_set_duplicator(records.get(), nullptr);
    copies.reserve(zlistx_size(records.get()));
    for (void* item = zlistx_first(records.get()); item; item = zlistx_next(records.get())) {
        const auto* client = static_cast<WIN_CLIENT_t*>(item);
        win_client_info& copy = copies.emplace_back();
        copy.id.reset(zframe_dup(client->id));
        copy.addr = client->addr;
        std::memcpy(copy.mac_addr, client->mac_addr, mac_size);
    }
}

std::vector<win_client_info> win_server_copy_clients(void* p_win_server)
{
    std::vector<win_client_info> copies;
    auto* server = static_cast<WIN_SERVER_t*>(p_win_server);
    if (any_null(__func__, server))
        return copies;
    try {
        // Not by the table's cursor: the actor's walks move it, and they take no lock.
        const std::lock_guard guard{server->clients_mutex};
        copy_clients_locked(*server, copies);
    } catch (const std::bad_alloc&) {
        logger_error(g_logger, str_out_of_memory, __func__);
    }
    return copies;
}

} // namespace rtls
