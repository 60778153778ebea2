// Any configuration file: either it gives no gateway, or a gateway none of whose doors stands wider open than the
// file says. The section of the HTTP door is read for itself, too: it needs no whole gateway. The services are made,
// but none is started.
#include "firmware/image_download.h"
#include "fuzzing.h"
#include "http/http_rules.h"
#include "link/win_server_private.h"
#include "memory_file.h"
#include "rtls-gateway.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace rtls {

using fuzzing::require;

namespace {

using gateway_ptr = std::unique_ptr<void, destroyed_by<rtls_gateway_destroy>>;

constexpr const char* required_keys[] = {"pidfile",
                                         "firmware_files",
                                         "ports/win",
                                         "ports/discovery",
                                         "ports/terminal",
                                         "pub_sub_proxy/address",
                                         "pub_sub_proxy/port",
                                         "pub_sub_proxy/input_port",
                                         "message_handler/address",
                                         "message_handler/port"};

class expectation {
public:
    explicit expectation(zconfig_t* config) : m_config(config) {}

    const char* text(const char* key) const { return zconfig_get(m_config, key, nullptr); }
    uint16_t number(const char* key) const { return static_cast<uint16_t>(strtol(text(key), nullptr, 0)); }
    // As it is there, or 0.
    size_t bound(const char* key) const
    {
        return text(key) ? static_cast<size_t>(strtol(text(key), nullptr, 0)) : 0;
    }

private:
    zconfig_t* m_config;
};

void check_win_server(const WIN_SERVER_t& server, const expectation& config)
{
    const auto endpoint = [&](const char* address, const char* port) {
        return std::string{"tcp://"} + config.text(address) + ":" + std::to_string(config.number(port));
    };
    require(server.win_port == config.number("ports/win"));
    require(server.discovery_port == config.number("ports/discovery"));
    require(server.proxy_full_address == endpoint("pub_sub_proxy/address", "pub_sub_proxy/port"));
    require(server.proxy_full_input_address == endpoint("pub_sub_proxy/address", "pub_sub_proxy/input_port"));
    require(server.msg_handler_full_address == endpoint("message_handler/address", "message_handler/port"));
    require(server.win_backlog >= 0);
}

// A rule that is there holds. None is made up.
void check_door(const door_rules& rules, const expectation& config)
{
    require(rules.networks.has_value() == (config.text("ports/win_networks") != nullptr));
    require(!rules.networks || !rules.networks->empty());
    require(rules.most == config.bound("ports/win_connections"));
    require(rules.most_of_one_address == config.bound("ports/win_connections_per_address"));
    for (const char* key : {"ports/win_connections", "ports/win_connections_per_address"})
        require(!config.text(key) || config.bound(key) > 0);
    const char* address = config.text("ports/win_address");
    require(rules.address == (address ? address : "*"));
}

void check_links(const curve_certificates& certificates, const expectation& config)
{
    require(certificates.closes(server_link::message_handler) ==
            (config.text("curve/message_handler") != nullptr));
    require(certificates.closes(server_link::pub_sub_proxy) ==
            (config.text("curve/pub_sub_proxy") != nullptr));
}

void check_firmware(const OTA_t& store, const expectation& config)
{
    require(store.files_number() == config.number("firmware_files"));
    require(store.files_number() >= 1 && store.files_number() <= 5);
    const char* urls = config.text("firmware_urls");
    require(!urls || !words_of(urls).empty());
}

void check_debug_mask(const expectation& config)
{
    for (unsigned section = 0; section < DBG_SECTIONS_NUMBER; ++section) {
        const char* word = config.text((std::string{"debug/"} + dbg_section_name[section]).c_str());
        const bool is_on = word && *word != '\0' && std::strchr("yY1tT", *word);
        require((debug_mask >> section & 1) == (is_on ? 1 : 0));
    }
}

// No door without the section, none that is open to more than it says. False: it is there, and can't be read.
bool check_http(zconfig_t* tree)
{
    const expectation config{tree};
    std::optional<http_rules> rules;
    const bool is_there = zconfig_locate(tree, "http") != nullptr;
    const bool is_read = read_http_rules(tree, rules);
    require(is_there || (is_read && !rules));
    if (!is_there || !is_read)
        return is_read;
    require(rules.has_value());
    require(config.text("http/port") && rules->port == strtol(config.text("http/port"), nullptr, 0));
    require(rules->port > 0);
    require(rules->address == (config.text("http/address") ? config.text("http/address") : "127.0.0.1"));
    require(rules->token.empty() == (config.text("http/token") == nullptr));
    require(std::ranges::all_of(rules->token, [](char c) { return c > ' ' && c <= '~'; }));
    return true;
}

void check_gateway(void* handle, zconfig_t* tree)
{
    const expectation config{tree};
    require(check_http(tree));
    for (const char* key : required_keys)
        require(config.text(key) != nullptr);
    const auto& server = *static_cast<WIN_SERVER_t*>(rtls_gateway_get_win_server(handle));
    check_win_server(server, config);
    check_door(server.win_door.rules, config);
    check_links(server.certificates, config);
    check_firmware(*server.ota(), config);
    check_debug_mask(config);
    require(rtls_gateway_get_terminal_server(handle) && rtls_gateway_get_nodes_container(handle));
    require(rtls_gateway_get_firmware(handle) == nullptr);
}

} // namespace

// Certificates are read by the library's reader of configurations, which loses its record of a file that has none of
// their syntax. The daemon reads them once, at its start.
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:zfile_new\n";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const fuzzing::memory_file file;
    if (!file.write_configuration({reinterpret_cast<const char*>(data), size}))
        return 0;
    const zconfig_ptr tree{zconfig_load(file.path().c_str())};
    require(tree != nullptr);
    (void)check_http(tree.get());
    debug_mask = 0;
    if (const gateway_ptr gateway{rtls_gateway_new(file.path().c_str())})
        check_gateway(gateway.get(), tree.get());
    image_download_only_from({});
    return 0;
}

} // namespace rtls
