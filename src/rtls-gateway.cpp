#include "rtls-gateway.h"

#include "base/common.h"
#include "base/config.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "base/signals.h"
#include "downlink/update_announcement.h"
#include "firmware/image_download.h"
#include "http/http_rules.h"
#include "http/http_server.h"
#include "net/door.h"
#include "server/win_server.h"
#include "services.h"
#include "terminal/terminal_server.h"
#include "watch/systemd.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace rtls {

static constexpr int ready_poll_ms = 100;
static constexpr uint16_t firmware_files_max = 5;

// Written on the main thread while no actor runs. Only the debug level and the firmware change while they
// run; their readers need the value alone, so relaxed order does. The handle is the address of the services.
struct RTLS_GATEWAY_t : services {
    lent<config_ptr> config;
    std::atomic<uint16_t> debug_level = 0;
    const char* pid_file_name = nullptr; // points into config
    // The owners of what the services name. rtls_gateway_destroy has the order in which they end.
    win_server_ptr own_win_server;
    terminal_server_ptr own_terminal_server;
    nodes_container_ptr own_nodes;
    ota_ptr own_ota;
    std::unique_ptr<download_pool> own_downloads;
    std::unique_ptr<http_server> own_http; // null without its section
};

using gateway_ptr = std::unique_ptr<services, destroyed_by<rtls_gateway_destroy>>;

// The gateway behind the handle; a null one is logged in the name of `function`.
static RTLS_GATEWAY_t* gateway_of(void* p_rtls_gateway, const char* function)
{
    (void)any_null(function, p_rtls_gateway);
    return static_cast<RTLS_GATEWAY_t*>(static_cast<services*>(p_rtls_gateway));
}

// Sections only ever get switched on here; "debug/..." is optional, and a missing key is logged by config.
static void read_debug_mask(zconfig_t* config)
{
    for (unsigned section = 0; section < DBG_SECTIONS_NUMBER; ++section) {
        char key[256];
        (void)snprintf(key, sizeof key, "debug/%s", dbg_section_name[section]);
        bool enabled = false;
        if (config_value_bool_get(config, key, &enabled) && enabled)
            debug_mask.fetch_or(static_cast<uint16_t>(1U << section), std::memory_order_relaxed);
    }
}

static bool read_firmware_files(zconfig_t* config, uint16_t* number)
{
    if (!config_value_uint16_t_get(config, "firmware_files", number))
        return false;
    if (*number >= 1 && *number <= firmware_files_max)
        return true;
    logger_error(g_logger, "%s: The parameter \"firmware_files\" has an incorrect value!",
                 "rtls_gateway_new");
    return false;
}

// An optional key: which nodes may register.
static bool read_admitted_macs(zconfig_t* config, NODES_CONTAINER_t& nodes)
{
    try {
        std::optional<prefix_list> macs;
        if (!read_mac_list(config, "win", macs))
            return false;
        if (macs)
            nodes.admit_only(*std::move(macs));
        return true;
    } catch (const std::bad_alloc&) {
        logger_error(g_logger, str_out_of_memory, "rtls_gateway_new");
        return false;
    }
}

// Optional keys: where firmware may come from, and whether operators may replace what servers ordered.
static bool read_firmware_rules(zconfig_t* config, OTA_t& store)
try {
    std::vector<std::string> prefixes;
    if (const char* text = zconfig_get(config, "firmware_urls", nullptr)) {
        prefixes = words_of(text);
        if (prefixes.empty()) {
            logger_error(g_logger, "The parameter \"firmware_urls\" names no URL!");
            return false;
        }
    }
    image_download_only_from(std::move(prefixes));
    bool keeps = false;
    if (zconfig_get(config, "firmware_keep_ordered", nullptr) &&
        !config_value_bool_get(config, "firmware_keep_ordered", &keeps)) {
        logger_error(g_logger, "The parameter \"firmware_keep_ordered\" is neither yes nor no!");
        return false;
    }
    if (keeps)
        store.keep_ordered();
    return true;
} catch (const std::bad_alloc&) {
    logger_error(g_logger, str_out_of_memory, "rtls_gateway_new");
    return false;
}

// An optional section: the HTTP door, which is opened when the gateway runs.
static bool make_http(zconfig_t* config, RTLS_GATEWAY_t& gateway)
try {
    std::optional<http_rules> rules;
    if (!read_http_rules(config, rules))
        return false;
    if (rules)
        gateway.own_http = std::make_unique<http_server>(gateway, *std::move(rules));
    return true;
} catch (const std::bad_alloc&) {
    logger_error(g_logger, str_out_of_memory, "rtls_gateway_new");
    return false;
}

// Keeps what a service's own function has made, and names it among the services. False when there is none.
template <typename Owner>
static bool keep(Owner& owner, typename Owner::pointer& service, void* handle)
{
    owner.reset(static_cast<typename Owner::pointer>(handle));
    service = owner.get();
    return service != nullptr;
}

// The order shows in the log: only the first key that is missing is reported.
static bool create_services(RTLS_GATEWAY_t& gateway, const char* config_file_name)
{
    gateway.config.reset(config_new(config_file_name));
    if (!gateway.config || !config_value_get(gateway.config, "pidfile", &gateway.pid_file_name))
        return false;
    read_debug_mask(gateway.config);

    auto* handle = static_cast<services*>(&gateway);
    uint16_t firmware_files = 0;
    return keep(gateway.own_win_server, gateway.win_server, win_server_new(gateway.config, handle)) &&
           keep(gateway.own_terminal_server, gateway.terminal_server,
                terminal_server_new(gateway.config, handle)) &&
           keep(gateway.own_nodes, gateway.nodes, nodes_container_new()) &&
           read_admitted_macs(gateway.config, *gateway.nodes) &&
           read_firmware_files(gateway.config, &firmware_files) &&
           keep(gateway.own_ota, gateway.ota, ota_new(firmware_files)) &&
           read_firmware_rules(gateway.config, *gateway.ota) &&
           keep(gateway.own_downloads, gateway.downloads, new (std::nothrow) download_pool) &&
           make_http(gateway.config, gateway);
}

void* rtls_gateway_new(const char* config_file_name)
{
    if (any_null(__func__, config_file_name))
        return nullptr;
    auto* gateway = new (std::nothrow) RTLS_GATEWAY_t{};
    gateway_ptr owner{gateway};
    if (!gateway) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return nullptr;
    }
    if (!create_services(*gateway, config_file_name))
        return nullptr;
    return owner.release();
}

static void log_pid_file_error(const char* verb, const char* file_name)
{
    const int code = errno;
    logger_error(g_logger, "unable to %s pid file %s, code=%d (%s)", verb, file_name, code,
                 errno_text{code}.c_str());
}

// Writes over the start of the file and neither truncates nor terminates it: whoever prepares the
// file keeps what follows the number.
static bool write_pid(const char* file_name)
{
    if (any_null(__func__, file_name))
        return false;
    const int file = open(file_name, O_RDWR | O_CREAT | O_CLOEXEC, 0640);
    if (file == -1) {
        log_pid_file_error("create", file_name);
        return false;
    }
    const bool is_written = dprintf(file, "%d", getpid()) > 0;
    if (!is_written)
        log_pid_file_error("write", file_name);
    const bool is_closed = close(file) == 0; // where some file systems first tell of a full disk
    if (!is_closed)
        log_pid_file_error("close", file_name);
    return is_written && is_closed;
}

static bool are_servers_ready(const RTLS_GATEWAY_t& gateway)
{
    return win_server_is_ready(gateway.win_server) && terminal_server_is_ready(gateway.terminal_server);
}

bool rtls_gateway_run(void* p_rtls_gateway)
{
    RTLS_GATEWAY_t* gateway = gateway_of(p_rtls_gateway, __func__);
    if (!gateway)
        return false;
    if (!gateway->win_server) {
        logger_error(g_logger, "%s: win server is not created!", __func__);
        return false;
    }
    if (!gateway->terminal_server) {
        logger_error(g_logger, "%s: terminal server is not created!", __func__);
        return false;
    }
    if (gateway->own_http && !gateway->own_http->open()) // first: whoever waits for us may ask how far we are
        return false;
    if (gateway->own_http || systemd_listens())
        terminal_server_show_pulse(*gateway->terminal_server);
    if (!win_server_run(gateway->win_server) || !terminal_server_run(gateway->terminal_server))
        return false;
    sleep_open_to_stop_signals(0); // takes a signal that has waited since the start
    while (!is_stop_requested()) {
        if (are_servers_ready(*gateway))
            return write_pid(gateway->pid_file_name);
        sleep_open_to_stop_signals(ready_poll_ms);
    }
    return false;
}

// Ends a service, which is named until it has ended: the threads of others may use it so long.
template <typename Owner>
static void end(Owner& owner, typename Owner::pointer& service)
{
    owner.reset();
    service = nullptr;
}

void rtls_gateway_destroy(void** pp_rtls_gateway)
{
    if (any_null(__func__, pp_rtls_gateway))
        return;
    if (!*pp_rtls_gateway)
        return;
    RTLS_GATEWAY_t* gateway = gateway_of(*pp_rtls_gateway, __func__);
    gateway->own_http.reset(); // its threads look at everybody
    // Then both actors: their threads use all the rest.
    end(gateway->own_terminal_server, gateway->terminal_server);
    end(gateway->own_win_server, gateway->win_server);
    end(gateway->own_downloads, gateway->downloads); // then its threads, which use the store
    gateway->config.reset();
    end(gateway->own_nodes, gateway->nodes);
    gateway->firmware.set(nullptr);
    end(gateway->own_ota, gateway->ota);
    delete gateway;
    *pp_rtls_gateway = nullptr;
}

services* rtls_gateway_get_services(void* p_rtls_gateway)
{
    return gateway_of(p_rtls_gateway, __func__);
}

zconfig_t* rtls_gateway_get_config(void* p_rtls_gateway)
{
    const RTLS_GATEWAY_t* gateway = gateway_of(p_rtls_gateway, __func__);
    return gateway ? gateway->config.get() : nullptr;
}

void* rtls_gateway_get_win_server(void* p_rtls_gateway)
{
    const RTLS_GATEWAY_t* gateway = gateway_of(p_rtls_gateway, __func__);
    return gateway ? gateway->win_server : nullptr;
}

void* rtls_gateway_get_terminal_server(void* p_rtls_gateway)
{
    const RTLS_GATEWAY_t* gateway = gateway_of(p_rtls_gateway, __func__);
    return gateway ? gateway->terminal_server : nullptr;
}

void* rtls_gateway_get_nodes_container(void* p_rtls_gateway)
{
    const RTLS_GATEWAY_t* gateway = gateway_of(p_rtls_gateway, __func__);
    return gateway ? gateway->nodes : nullptr;
}

void* rtls_gateway_get_ota(void* p_rtls_gateway)
{
    const RTLS_GATEWAY_t* gateway = gateway_of(p_rtls_gateway, __func__);
    return gateway ? gateway->ota : nullptr;
}

void* rtls_gateway_get_firmware(void* p_rtls_gateway)
{
    const RTLS_GATEWAY_t* gateway = gateway_of(p_rtls_gateway, __func__);
    return gateway ? gateway->firmware.get() : nullptr;
}

void rtls_gateway_set_firmware(void* p_rtls_gateway, void* p_firmware)
{
    RTLS_GATEWAY_t* gateway = gateway_of(p_rtls_gateway, __func__);
    if (!gateway)
        return;
    gateway->firmware.set(static_cast<FIRMWARE_t*>(p_firmware));
}

zhashx_t* rtls_gateway_get_win_clients(void* p_rtls_gateway)
{
    const RTLS_GATEWAY_t* gateway = gateway_of(p_rtls_gateway, __func__);
    return gateway ? win_server_get_clients(gateway->win_server) : nullptr;
}

zhashx_t* rtls_gateway_get_terminal_clients(void* p_rtls_gateway)
{
    const RTLS_GATEWAY_t* gateway = gateway_of(p_rtls_gateway, __func__);
    return gateway ? terminal_server_get_clients(gateway->terminal_server) : nullptr;
}

void rtls_gateway_nodes_update(void* p_rtls_gateway)
{
    const RTLS_GATEWAY_t* gateway = gateway_of(p_rtls_gateway, __func__);
    if (gateway)
        win_server_nodes_update(gateway->win_server, nullptr);
}

uint16_t rtls_gateway_get_debug_level(void* p_rtls_gateway)
{
    const RTLS_GATEWAY_t* gateway = gateway_of(p_rtls_gateway, __func__);
    return gateway ? gateway->debug_level.load(std::memory_order_relaxed) : uint16_t{0};
}

void rtls_gateway_set_debug_level(void* p_rtls_gateway, uint16_t debug_level)
{
    RTLS_GATEWAY_t* gateway = gateway_of(p_rtls_gateway, __func__);
    if (gateway)
        gateway->debug_level.store(debug_level, std::memory_order_relaxed);
}

uint16_t rtls_gateway_increment_debug_level(void* p_rtls_gateway)
{
    RTLS_GATEWAY_t* gateway = gateway_of(p_rtls_gateway, __func__);
    if (!gateway)
        return 0;
    return static_cast<uint16_t>(gateway->debug_level.fetch_add(1, std::memory_order_relaxed) + 1);
}

} // namespace rtls
