// Every function that another module calls: a missing argument is logged in the function's name, answered
// with nothing, and changes nothing. So a mistake of ours costs one message instead of the daemon.
#include "base/common.h"
#include "base/config.h"
#include "base/hex.h"
#include "base/tokenize.h"
#include "downlink/generic_requests.h"
#include "downlink/node_delivery.h"
#include "downlink/page_interception.h"
#include "downlink/page_serving.h"
#include "downlink/proxy_reader.h"
#include "downlink/spam_filter.h"
#include "downlink/update_announcement.h"
#include "downlink/win_server_pub_sub_proxy.h"
#include "firmware/crc32.h"
#include "firmware/firmware.h"
#include "firmware/ota.h"
#include "link/rpl_version.h"
#include "link/sending.h"
#include "link/unsent_messages.h"
#include "link/win_clients.h"
#include "link/win_server_win_clients.h"
#include "net/udplib.h"
#include "registry/nodes_container.h"
#include "rtls-gateway.h"
#include "server/discovery.h"
#include "server/supervision.h"
#include "server/win_server.h"
#include "server/win_server_actor.h"
#include "support/node_command_fixture.h"
#include "support/sock.h"
#include "terminal/client.h"
#include "terminal/terminal_commands.h"
#include "terminal/terminal_server.h"
#include "uplink/messages.h"
#include "uplink/payloads.h"
#include "uplink/upstream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <span>
#include <string>
#include <utility>

namespace rtls {

namespace {

class null_arguments : public node_command_fixture {
public:
    null_arguments() { server->actor_loop.reset(zloop_new()); }
    ~null_arguments() override { server->actor_loop.reset(); }

    // What a call may be given beside its missing argument.
    void* given_gateway() { return gateway; }
    WIN_SERVER_t* win() { return server; }
    zloop_t* loop() { return server->actor_loop; }
    zsock_t* sock() { return server->win_sock; }
    void* registry() { return nodes; }
    void* store() { return rtls_gateway_get_ota(gateway); }
    void* terminal_server() { return rtls_gateway_get_terminal_server(gateway); }
    zconfig_t* config() { return rtls_gateway_get_config(gateway); }

    // What the call logs while the server has no WIN port.
    template <typename Call>
    bool without_win_port(Call call)
    {
        lent<zsock_ptr> port = std::exchange(server->win_sock, {});
        const bool answer = call();
        server->win_sock = std::move(port);
        return answer;
    }

    // As while the gateway is being built or taken down.
    template <typename Call>
    bool with_services(services* some, Call call)
    {
        services* all = std::exchange(server->rtls_gateway, some);
        const bool answer = call();
        server->rtls_gateway = all;
        return answer;
    }

    services no_registry{};
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    NODE_t node{};
    uint8_t bytes[64] = {};
    char text[8] = "a b";
    const char* value = nullptr;
    int64_t number = 0;
    uint16_t small = 0;
    bool flag = false;
    FIRMWARE_t image{};
    OTA_FIRMWARE_INFO_t info{};
    char* words[2] = {};
    TERMINAL_CLIENT_t terminal{};
};

// One call with one argument missing. True when it answers nothing.
struct null_call {
    const char* function;
    bool (*answers_nothing)(null_arguments& with);
};

using given = null_arguments;
constexpr uint8_t page[32] = {};

const null_call base_calls[] = {
    {"config_new", [](given&) { return !config_new(nullptr); }},
    {"config_destroy", [](given&) { return config_destroy(nullptr), true; }},
    {"config_value_get", [](given& w) { return !config_value_get(nullptr, "a", &w.value); }},
    {"config_value_get", [](given& w) { return !config_value_get(w.config(), nullptr, &w.value); }},
    {"config_value_get", [](given& w) { return !config_value_get(w.config(), "a", nullptr); }},
    {"config_value_long_get", [](given& w) { return !config_value_long_get(nullptr, "a", &w.number); }},
    {"config_value_long_get",
     [](given& w) { return !config_value_long_get(w.config(), nullptr, &w.number); }},
    {"config_value_long_get", [](given& w) { return !config_value_long_get(w.config(), "a", nullptr); }},
    {"config_value_uint16_t_get",
     [](given& w) { return !config_value_uint16_t_get(nullptr, "a", &w.small); }},
    {"config_value_uint16_t_get",
     [](given& w) { return !config_value_uint16_t_get(w.config(), nullptr, &w.small); }},
    {"config_value_uint16_t_get",
     [](given& w) { return !config_value_uint16_t_get(w.config(), "a", nullptr); }},
    {"config_value_bool_get", [](given& w) { return !config_value_bool_get(nullptr, "a", &w.flag); }},
    {"config_value_bool_get", [](given& w) { return !config_value_bool_get(w.config(), nullptr, &w.flag); }},
    {"config_value_bool_get", [](given& w) { return !config_value_bool_get(w.config(), "a", nullptr); }},
    {"crc32_byte", [](given&) { return crc32_byte(nullptr, 0) == 0; }},
    {"string_to_uint8_arr", [](given& w) { return string_to_uint8_arr(nullptr, w.bytes, 1) == 0; }},
    {"string_to_uint8_arr", [](given&) { return string_to_uint8_arr("00", nullptr, 1) == 0; }},
    {"tokenize", [](given& w) { return tokenize(nullptr, &w.small, w.words, 2), w.small == 0; }},
    {"tokenize", [](given& w) { return tokenize(w.text, nullptr, w.words, 2), !w.words[0]; }},
    {"tokenize", [](given& w) { return tokenize(w.text, &w.small, nullptr, 2), w.small == 0; }},
    {"udp_new_connection", [](given&) { return !udp_new_connection(0, nullptr); }},
};

const null_call registry_calls[] = {
    {"nodes_container_destroy", [](given&) { return nodes_container_destroy(nullptr), true; }},
    {"nodes_container_get_size", [](given&) { return nodes_container_get_size(nullptr) == 0; }},
    {"nodes_container_get_first", [](given&) { return !nodes_container_get_first(nullptr); }},
    {"nodes_container_get_next", [](given&) { return !nodes_container_get_next(nullptr); }},
    {"nodes_container_find_by_mac", [](given& w) { return !nodes_container_find_by_mac(nullptr, w.bytes); }},
    {"nodes_container_find_by_mac",
     [](given& w) { return !nodes_container_find_by_mac(w.registry(), nullptr); }},
    {"nodes_container_find_or_create_by_mac",
     [](given& w) { return !nodes_container_find_or_create_by_mac(nullptr, w.bytes, nullptr, 0); }},
    {"nodes_container_find_or_create_by_mac",
     [](given& w) { return !nodes_container_find_or_create_by_mac(w.registry(), nullptr, nullptr, 0); }},
    {"nodes_container_find_by_short_mac",
     [](given&) { return !nodes_container_find_by_short_mac(nullptr, 0, 1); }},
    {"nodes_container_find_by_ip", [](given& w) { return !nodes_container_find_by_ip(nullptr, w.bytes); }},
    {"nodes_container_find_by_ip",
     [](given& w) { return !nodes_container_find_by_ip(w.registry(), nullptr); }},
    {"nodes_container_set_address",
     [](given& w) { return nodes_container_set_address(nullptr, &w.node, w.bytes, false), true; }},
    {"nodes_container_set_address",
     [](given& w) { return nodes_container_set_address(w.registry(), nullptr, w.bytes, false), true; }},
    {"nodes_container_set_address",
     [](given& w) { return nodes_container_set_address(w.registry(), &w.node, nullptr, false), true; }},
    {"nodes_container_update_lifetime",
     [](given&) { return nodes_container_update_lifetime(nullptr), true; }},
    {"nodes_container_delete", [](given& w) { return nodes_container_delete(nullptr, w.bytes), true; }},
    {"nodes_container_delete", [](given& w) { return nodes_container_delete(w.registry(), nullptr), true; }},
    {"nodes_container_lock", [](given&) { return nodes_container_lock(nullptr), true; }},
    {"nodes_container_unlock", [](given&) { return nodes_container_unlock(nullptr), true; }},
    {"node_update_win_client_ID", [](given& w) { return !node_update_win_client_ID(nullptr, w.bridge->id); }},
    {"node_update_win_client_ID", [](given& w) { return !node_update_win_client_ID(&w.node, nullptr); }},
};

const null_call firmware_calls[] = {
    {"firmware_get_from_url", [](given&) { return !firmware_get_from_url(nullptr); }},
    {"firmware_destroy", [](given&) { return firmware_destroy(nullptr), true; }},
    {"firmware_msg_pack", [](given&) { return !firmware_msg_pack(nullptr, nullptr); }},
    {"firmware_msg_pack", [](given& w) { return !firmware_msg_pack(&w.image, nullptr); }},
    {"ota_destroy", [](given&) { return ota_destroy(nullptr), true; }},
    {"ota_download_firmware",
     [](given&) { return ota_download_firmware(nullptr, "http://127.0.0.1:1/", nullptr, nullptr) == -1; }},
    {"ota_download_firmware",
     [](given& w) { return ota_download_firmware(w.store(), nullptr, nullptr, nullptr) == -1; }},
    {"ota_get_firmware_info", [](given& w) { return !ota_get_firmware_info(nullptr, 0, &w.info); }},
    {"ota_get_firmware_info", [](given& w) { return !ota_get_firmware_info(w.store(), 0, nullptr); }},
    {"ota_del_firmware", [](given&) { return !ota_del_firmware(nullptr, 0); }},
    {"ota_get_files_number", [](given&) { return ota_get_files_number(nullptr) == 0; }},
    {"ota_get_firmware_page", [](given& w) { return !ota_get_firmware_page(nullptr, 1, 1, 32, 0, w.bytes); }},
    {"ota_get_firmware_page",
     [](given& w) { return !ota_get_firmware_page(w.store(), 1, 1, 32, 0, nullptr); }},
    {"ota_set_firmware_page", [](given&) { return !ota_set_firmware_page(nullptr, 1, 1, 32, 0, page); }},
    {"ota_set_firmware_page",
     [](given& w) { return !ota_set_firmware_page(w.store(), 1, 1, 32, 0, nullptr); }},
};

const null_call link_calls[] = {
    {"win_client_new", [](given&) { return !win_client_new(nullptr); }},
    {"win_client_destroy", [](given&) { return win_client_destroy(nullptr), true; }},
    {"win_client_increase_buffer_size", [](given&) { return !win_client_increase_buffer_size(nullptr); }},
    {"handle_win_clients", [](given& w) { return handle_win_clients(nullptr, w.sock(), w.win()) == 1; }},
    {"handle_win_clients", [](given& w) { return handle_win_clients(w.loop(), nullptr, w.win()) == 1; }},
    {"handle_win_clients", [](given& w) { return handle_win_clients(w.loop(), w.sock(), nullptr) == 1; }},
    {"parse_data_from_win_client",
     [](given& w) { return parse_data_from_win_client(nullptr, w.bridge, w.bytes, 1), true; }},
    {"parse_data_from_win_client",
     [](given& w) { return parse_data_from_win_client(w.win(), nullptr, w.bytes, 1), true; }},
    {"parse_data_from_win_client",
     [](given& w) { return parse_data_from_win_client(w.win(), w.bridge, nullptr, 0), true; }},
    {"process_data_from_win_client",
     [](given& w) { return !process_data_from_win_client(nullptr, w.bridge); }},
    {"process_data_from_win_client",
     [](given& w) { return !process_data_from_win_client(w.win(), nullptr); }},
    {"data_to_win_client", [](given& w) { return !data_to_win_client(nullptr, nullptr, w.bytes, 1); }},
    {"data_to_win_client", [](given& w) { return !data_to_win_client(w.win(), nullptr, nullptr, 0); }},
    {"data_to_win_client",
     [](given& w) {
         return w.without_win_port([&] { return !data_to_win_client(w.win(), nullptr, w.bytes, 1); });
     }},
    {"esc_data_to_win_client",
     [](given& w) { return !esc_data_to_win_client(nullptr, w.bridge->id, w.bytes, 1); }},
    {"esc_data_to_win_client",
     [](given& w) { return !esc_data_to_win_client(w.win(), nullptr, w.bytes, 1); }},
    {"esc_data_to_win_client",
     [](given& w) { return !esc_data_to_win_client(w.win(), w.bridge->id, nullptr, 1); }},
    {"esc_data_to_win_client",
     [](given& w) {
         return w.without_win_port(
             [&] { return !esc_data_to_win_client(w.win(), w.bridge->id, w.bytes, 1); });
     }},
    {"data_to_cache", [](given& w) { return !data_to_cache(nullptr, w.bridge, w.bytes, 1); }},
    {"data_to_cache", [](given& w) { return !data_to_cache(w.win(), nullptr, w.bytes, 1); }},
    {"data_to_cache", [](given& w) { return !data_to_cache(w.win(), w.bridge, nullptr, 1); }},
    {"unsent_messages_to_win_client",
     [](given& w) { return unsent_messages_to_win_client(nullptr, w.bridge), true; }},
    {"unsent_messages_to_win_client",
     [](given& w) { return unsent_messages_to_win_client(w.win(), nullptr), true; }},
    {"rpl_version_to_win_clients", [](given&) { return rpl_version_to_win_clients(nullptr), true; }},
    {"rpl_timer_handler", [](given& w) { return rpl_timer_handler(nullptr, 1, w.win()) == 1; }},
    {"rpl_timer_handler", [](given& w) { return rpl_timer_handler(w.loop(), 1, nullptr) == 1; }},
};

const null_call downlink_calls[] = {
    {"process_data_from_pub_sub_proxy",
     [](given& w) { return !process_data_from_pub_sub_proxy(nullptr, w.bytes, 26); }},
    {"process_data_from_pub_sub_proxy",
     [](given& w) { return !process_data_from_pub_sub_proxy(w.win(), nullptr, 26); }},
    {"handle_pub_sub_proxy", [](given& w) { return handle_pub_sub_proxy(nullptr, nullptr, w.win()) == 0; }},
    {"handle_pub_sub_proxy", [](given& w) { return handle_pub_sub_proxy(nullptr, w.sock(), nullptr) == 0; }},
    {"handle_interthread_sever_sock",
     [](given& w) { return handle_interthread_sever_sock(nullptr, nullptr, w.win()) == 0; }},
    {"handle_interthread_sever_sock",
     [](given& w) { return handle_interthread_sever_sock(nullptr, w.sock(), nullptr) == 0; }},
    {"generic_process", [](given& w) { return !generic_process(nullptr, w.bytes, 13); }},
    {"generic_process", [](given& w) { return !generic_process(w.win(), nullptr, 13); }},
    {"find_route",
     [](given& w) { return w.with_services(&w.no_registry, [&] { return !find_route(w.win(), w.bytes); }); }},
    {"spam_filter",
     [](given& w) {
         return !spam_filter(nullptr, w.bytes, 26, {1, 0});
     }},
    {"spam_filter",
     [](given& w) {
         return !spam_filter(w.registry(), nullptr, 26, {1, 0});
     }},
    {"firmware_interception", [](given& w) { return !firmware_interception(nullptr, w.bytes, 1); }},
    {"firmware_interception", [](given& w) { return !firmware_interception(w.win(), nullptr, 64); }},
    {"send_otapage_from_cache",
     [](given& w) { return !send_otapage_from_cache(nullptr, *w.bridge, w.bytes, w.bytes); }},
    {"send_otapage_from_cache",
     [](given& w) { return !send_otapage_from_cache(w.win(), *w.bridge, {}, w.bytes); }},
    {"send_otapage_from_cache",
     [](given& w) { return !send_otapage_from_cache(w.win(), *w.bridge, w.bytes, nullptr); }},
    {"send_otapage_from_cache",
     [](given& w) {
         return w.with_services(
             nullptr, [&] { return !send_otapage_from_cache(w.win(), *w.bridge, w.bytes, w.bytes); });
     }},
};

const null_call uplink_calls[] = {
    {"data_to_msg_handler", [](given& w) { return data_to_msg_handler(nullptr, w.bytes, 1, 0, 0), true; }},
    {"data_to_msg_handler", [](given& w) { return data_to_msg_handler(w.win(), nullptr, 1, 0, 0), true; }},
    {"win_management_to_server", [](given&) { return win_management_to_server(nullptr, "text"), true; }},
    {"win_management_to_server", [](given& w) { return win_management_to_server(w.win(), nullptr), true; }},
    {"processing_ul_tdoa", [](given& w) { return !processing_ul_tdoa(nullptr, w.bytes, w.bytes); }},
    {"processing_ul_tdoa", [](given& w) { return !processing_ul_tdoa(w.win(), {}, w.bytes); }},
};

const null_call server_calls[] = {
    {"win_server_new", [](given& w) { return !win_server_new(nullptr, w.given_gateway()); }},
    {"win_server_new", [](given& w) { return !win_server_new(w.config(), nullptr); }},
    {"win_server_run", [](given&) { return !win_server_run(nullptr); }},
    {"win_server_is_ready", [](given&) { return !win_server_is_ready(nullptr); }},
    {"win_server_get_clients", [](given&) { return !win_server_get_clients(nullptr); }},
    {"win_server_nodes_update", [](given&) { return win_server_nodes_update(nullptr, nullptr), true; }},
    {"win_server_destroy", [](given&) { return win_server_destroy(nullptr), true; }},
    {"delete_win_client", [](given& w) { return delete_win_client(nullptr, w.bridge->id), true; }},
    {"delete_win_client", [](given& w) { return delete_win_client(w.win(), nullptr), true; }},
    {"delete_win_client",
     [](given& w) {
         return w.without_win_port([&] { return delete_win_client(w.win(), w.bridge->id), true; });
     }},
    {"check_client_connection", [](given& w) { return check_client_connection(nullptr, 1, w.win()) == 1; }},
    {"check_client_connection", [](given& w) { return check_client_connection(w.loop(), 1, nullptr) == 1; }},
    {"update_nodes_lifetime", [](given& w) { return update_nodes_lifetime(nullptr, 1, w.win()) == 1; }},
    {"update_nodes_lifetime", [](given& w) { return update_nodes_lifetime(w.loop(), 1, nullptr) == 1; }},
    {"check_proxy_connection", [](given& w) { return check_proxy_connection(nullptr, 1, w.win()) == 1; }},
    {"check_proxy_connection", [](given& w) { return check_proxy_connection(w.loop(), 1, nullptr) == 1; }},
    {"check_clients_unsent_messages",
     [](given& w) { return check_clients_unsent_messages(nullptr, 1, w.win()) == 1; }},
    {"check_clients_unsent_messages",
     [](given& w) { return check_clients_unsent_messages(w.loop(), 1, nullptr) == 1; }},
    {"handle_udp_in", [](given&) { return handle_udp_in(nullptr, nullptr, nullptr) == 0; }},
    {"destroy_actor_context", [](given&) { return destroy_actor_context(nullptr), true; }},
};

const null_call terminal_calls[] = {
    {"terminal_server_new", [](given& w) { return !terminal_server_new(nullptr, w.given_gateway()); }},
    {"terminal_server_new", [](given& w) { return !terminal_server_new(w.config(), nullptr); }},
    {"terminal_server_run", [](given&) { return !terminal_server_run(nullptr); }},
    {"terminal_server_destroy", [](given&) { return terminal_server_destroy(nullptr), true; }},
    {"terminal_server_get_clients", [](given&) { return !terminal_server_get_clients(nullptr); }},
    {"terminal_server_is_ready", [](given&) { return !terminal_server_is_ready(nullptr); }},
    {"terminal_server_generic_req_to_win_serwer",
     [](given& w) { return !terminal_server_generic_req_to_win_serwer(nullptr, w.bytes, 1); }},
    {"terminal_server_generic_req_to_win_serwer",
     [](given& w) { return !terminal_server_generic_req_to_win_serwer(w.terminal_server(), nullptr, 0); }},
    {"terminal_commands_parse",
     [](given& w) {
         return terminal_commands_parse(nullptr, &w.terminal, w.sock(), w.text, w.sock()), true;
     }},
    {"terminal_commands_parse",
     [](given& w) {
         return terminal_commands_parse(w.given_gateway(), nullptr, w.sock(), w.text, w.sock()), true;
     }},
    {"terminal_commands_parse",
     [](given& w) {
         return terminal_commands_parse(w.given_gateway(), &w.terminal, nullptr, w.text, w.sock()), true;
     }},
    {"terminal_commands_parse",
     [](given& w) {
         return terminal_commands_parse(w.given_gateway(), &w.terminal, w.sock(), nullptr, w.sock()), true;
     }},
    {"terminal_commands_parse",
     [](given& w) {
         return terminal_commands_parse(w.given_gateway(), &w.terminal, w.sock(), w.text, nullptr), true;
     }},
};

const null_call gateway_calls[] = {
    {"rtls_gateway_new", [](given&) { return !rtls_gateway_new(nullptr); }},
    {"rtls_gateway_run", [](given&) { return !rtls_gateway_run(nullptr); }},
    {"rtls_gateway_destroy", [](given&) { return rtls_gateway_destroy(nullptr), true; }},
    {"rtls_gateway_get_services", [](given&) { return !rtls_gateway_get_services(nullptr); }},
    {"rtls_gateway_get_config", [](given&) { return !rtls_gateway_get_config(nullptr); }},
    {"rtls_gateway_get_win_server", [](given&) { return !rtls_gateway_get_win_server(nullptr); }},
    {"rtls_gateway_get_terminal_server", [](given&) { return !rtls_gateway_get_terminal_server(nullptr); }},
    {"rtls_gateway_get_nodes_container", [](given&) { return !rtls_gateway_get_nodes_container(nullptr); }},
    {"rtls_gateway_get_ota", [](given&) { return !rtls_gateway_get_ota(nullptr); }},
    {"rtls_gateway_get_firmware", [](given&) { return !rtls_gateway_get_firmware(nullptr); }},
    {"rtls_gateway_set_firmware", [](given&) { return rtls_gateway_set_firmware(nullptr, nullptr), true; }},
    {"rtls_gateway_get_win_clients", [](given&) { return !rtls_gateway_get_win_clients(nullptr); }},
    {"rtls_gateway_get_terminal_clients", [](given&) { return !rtls_gateway_get_terminal_clients(nullptr); }},
    {"rtls_gateway_nodes_update", [](given&) { return rtls_gateway_nodes_update(nullptr), true; }},
    {"rtls_gateway_get_debug_level", [](given&) { return rtls_gateway_get_debug_level(nullptr) == 0; }},
    {"rtls_gateway_set_debug_level", [](given&) { return rtls_gateway_set_debug_level(nullptr, 1), true; }},
    {"rtls_gateway_increment_debug_level",
     [](given&) { return rtls_gateway_increment_debug_level(nullptr) == 0; }},
};

} // namespace

TEST_F(null_arguments, are_logged_by_the_function_called_and_answered_with_nothing)
{
    for (const std::span<const null_call> calls : {std::span<const null_call>{base_calls},
                                                   {registry_calls},
                                                   {firmware_calls},
                                                   {link_calls},
                                                   {downlink_calls},
                                                   {uplink_calls},
                                                   {server_calls},
                                                   {terminal_calls},
                                                   {gateway_calls}})
        for (size_t i = 0; i < calls.size(); ++i) {
            SCOPED_TRACE(testing::Message() << calls[i].function << ", row " << i);
            EXPECT_TRUE(calls[i].answers_nothing(*this));
            EXPECT_THAT(m_log.take(), testing::ElementsAre(testing::EndsWith(
                                          " " + std::string(calls[i].function) + ": null pointer!")));
        }
    EXPECT_EQ(sent_to(bridge), std::vector<std::string>{});
    EXPECT_EQ(nodes_container_get_size(nodes), 0U);
}

} // namespace rtls
