#include "http/api.h"

#include "base/logger.h"
#include "base/peer.h"
#include "http/health.h"
#include "http/json_text.h"
#include "http/node_query.h"
#include "http/node_walk.h"
#include "http/time_text.h"
#include "server/win_server.h"
#include "terminal/firmware_commands.h"
#include "terminal/terminal_server.h"
#include "version.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace rtls {

static constexpr std::chrono::milliseconds patience_with_actors{500};

api::api(services& gateway)
    : m_gateway(gateway), m_started_ms(zclock_time()), m_started_mono_ms(zclock_mono())
{
}

static page json_page(const json& value)
{
    return {200, json_text(value)};
}

// What `make` gives on the actor's thread; nothing when it does not answer in time.
template <typename T, typename Post>
static std::optional<T> asked(Post post, std::function<T()> make)
{
    auto promise = std::make_shared<std::promise<T>>();
    std::future<T> answer = promise->get_future();
    const bool is_posted = post([promise, make = std::move(make)] {
        try {
            promise->set_value(make());
        } catch (...) {
            promise->set_exception(std::current_exception());
        }
    });
    promise.reset(); // a call that is dropped breaks it
    if (!is_posted || answer.wait_for(patience_with_actors) != std::future_status::ready)
        return std::nullopt;
    try {
        return answer.get();
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

static page no_answer(std::string_view who)
{
    return refusal_page(503, "the " + std::string{who} + " does not answer");
}

static page stops_page()
{
    return refusal_page(503, "the gateway stops");
}

static std::string zmq_version_text()
{
    int major = 0;
    int minor = 0;
    int patch = 0;
    zmq_version(&major, &minor, &patch);
    return std::to_string(major) + '.' + std::to_string(minor) + '.' + std::to_string(patch);
}

page api::version(const page_request& /*request*/) const
{
    return json_page(
        {{"name", "rtls-gateway"}, {"version", rtls_gateway_version}, {"zmq", zmq_version_text()}});
}

// --- bridges

namespace {

struct node_counts {
    size_t connected = 0;
    size_t floating = 0;
    size_t expired = 0;
    std::vector<size_t> of_bridge; // that live
};

} // namespace

static std::optional<node_counts> count_nodes(NODES_CONTAINER_t& nodes,
                                              std::span<const win_client_info> bridges,
                                              const std::atomic<bool>& is_stopping)
{
    node_counts counts;
    const auto begin_anew = [&] { counts = {0, 0, 0, std::vector<size_t>(bridges.size())}; };
    const auto take = [&](std::span<const node_row> rows) {
        for (const node_row& row : rows)
            switch (status_of(row)) {
            case node_status::connected:
                ++counts.connected;
                ++counts.of_bridge[row.bridge];
                break;
            case node_status::floating:
                ++counts.floating;
                break;
            case node_status::expired:
                ++counts.expired;
                break;
            }
    };
    begin_anew();
    if (!walk_nodes(nodes, index_bridges(bridges), take, begin_anew, is_stopping))
        return std::nullopt;
    return counts;
}

static json bridge_json(const win_client_info& bridge, size_t nodes)
{
    static constexpr uint8_t unnamed[mac_size]{};
    const bool is_named = std::memcmp(bridge.mac_addr, unnamed, mac_size) != 0;
    return {{"id", identity_key{bridge.id.view()}.c_str()},
            {"mac", is_named ? json(colon_mac_text{bridge.mac_addr}.c_str()) : json(nullptr)},
            {"address", ipv4_text{bridge.addr}.c_str()},
            {"port", ntohs(bridge.addr.sin_port)},
            {"nodes", nodes}};
}

page api::bridges(const page_request& /*request*/) const
{
    const auto bridges = win_server_copy_clients_in_slices(*m_gateway.win_server);
    const auto counts = count_nodes(*m_gateway.nodes, bridges, m_is_stopping);
    if (!counts)
        return stops_page();
    json list = json::array();
    for (size_t i = 0; i < bridges.size(); ++i)
        list.push_back(bridge_json(bridges[i], counts->of_bridge[i]));
    return json_page({{"bridges", std::move(list)}});
}

// --- nodes

page api::nodes(const page_request& request) const
{
    std::string fault;
    std::optional<node_query> query = node_query::read(request.parameters, fault);
    if (!query)
        return refusal_page(400, fault);
    const auto bridges = win_server_copy_clients_in_slices(*m_gateway.win_server);
    nodes_page found{*std::move(query), bridges};
    const bool is_whole = walk_nodes(
        *m_gateway.nodes, index_bridges(bridges), [&](std::span<const node_row> rows) { found.take(rows); },
        [&] { found.begin_anew(); }, m_is_stopping);
    return is_whole ? json_page(found.as_json()) : stops_page();
}

namespace {

struct found_node {
    node_row row;
    std::vector<win_client_info> bridge; // its own; none: it is of no connected bridge
};

} // namespace

// Looks for the one bridge alone: the table has thousands.
static std::optional<found_node> find_node(const services& gateway, const mac_array& mac)
{
    found_node found{};
    bridge_identity bridge;
    {
        const nodes_guard guard{*gateway.nodes};
        const NODE_t* node = gateway.nodes->look_up(mac.data());
        if (!node)
            return std::nullopt;
        copy_node(*node, {}, found.row);
        bridge = bridge_identity{frame_bytes(node->win_client_id.get())};
    }
    if (const auto info = win_server_find_client(*gateway.win_server, bridge.view())) {
        found.row.bridge = 0;
        found.bridge.push_back(*info);
    }
    return found;
}

page api::node(const page_request& request) const
{
    const std::optional<mac_array> mac = parse_mac(request.rest);
    if (!mac)
        return refusal_page(400, "a MAC has 16 hex digits");
    const std::optional<found_node> found = find_node(m_gateway, *mac);
    return found ? json_page(node_json(found->row, found->bridge))
                 : refusal_page(404, "there is no such node");
}

// --- operators

static json operator_json(const operator_info& who)
{
    return {{"address", ipv4_text{who.addr}.c_str()},
            {"port", ntohs(who.addr.sin_port)},
            {"subscribed", who.is_subscribed},
            {"waits_for_image", who.is_fetching},
            {"filter", who.filter ? json(*who.filter) : json(nullptr)}};
}

page api::operators(const page_request& /*request*/) const
{
    TERMINAL_SERVER_t& terminal = *m_gateway.terminal_server;
    const auto operators = asked<std::vector<operator_info>>(
        [&](std::function<void()> call) { return terminal_server_post(terminal, std::move(call)); },
        [&terminal] { return terminal_server_copy_clients(terminal); });
    if (!operators)
        return no_answer("terminal server");
    json list = json::array();
    for (const operator_info& who : *operators)
        list.push_back(operator_json(who));
    return json_page({{"operators", std::move(list)}});
}

// --- firmware

static std::string hex_number(uint32_t number)
{
    char text[9];
    (void)snprintf(text, sizeof text, "%08X", number);
    return text;
}

static json image_json(uint16_t index, const OTA_FIRMWARE_INFO_t& image)
{
    return {{"index", index},
            {"git_id", hex_number(image.git_ver)},
            {"crc32", hex_number(image.crc32)},
            {"size", image.size},
            {"page_size", image.page_size},
            {"pages", firmware_pages_number(image)},
            {"maximum_pages", image.maximum_pages},
            {"board_version", image.board_version},
            {"board_revision", image.board_revision}};
}

static json images_json(const OTA_t& store)
{
    json images = json::array();
    for (uint16_t i = 0; i < store.files_number(); ++i)
        if (const auto image = store.firmware_info(i))
            images.push_back(image_json(i, *image));
    return images;
}

// The image that bridges are told of, which only the WIN server's thread may look at.
static json announced_json(const current_firmware& current)
{
    const FIRMWARE_t* image = current.get();
    if (!image)
        return nullptr;
    return {
        {"version", hex_number(image->version)}, {"crc32", hex_number(image->crc32)}, {"size", image->size}};
}

page api::firmware(const page_request& /*request*/) const
{
    services& gateway = m_gateway;
    const auto announced = asked<json>(
        [&](std::function<void()> call) { return win_server_post(*gateway.win_server, std::move(call)); },
        [&gateway] { return announced_json(gateway.firmware); });
    if (!announced)
        return no_answer("WIN server");
    return json_page({{"slots", gateway.ota->files_number()},
                      {"images", images_json(*gateway.ota)},
                      {"announced", *announced}});
}

// --- the gateway

static json log_json()
{
    const tav_log_counters lines = logger_get_counters(g_logger_ctx);
    return {{"queued", lines.queued},       {"written", lines.written},   {"lost", lines.lost},
            {"held_back", lines.held_back}, {"unstored", lines.unstored}, {"unpublished", lines.unpublished}};
}

page api::status(const page_request& /*request*/) const
{
    const auto bridges = win_server_copy_clients_in_slices(*m_gateway.win_server);
    const auto counts = count_nodes(*m_gateway.nodes, bridges, m_is_stopping);
    if (!counts)
        return stops_page();
    json out;
    out["version"] = rtls_gateway_version;
    out["started"] = utc_text(m_started_ms);
    out["uptime_s"] = (zclock_mono() - m_started_mono_ms) / 1000;
    out["serving"] = is_serving(m_gateway);
    out["bridges"] = bridges.size();
    out["nodes"] = {{"total", counts->connected + counts->floating + counts->expired},
                    {"connected", counts->connected},
                    {"floating", counts->floating},
                    {"expired", counts->expired}};
    out["links"] = links_json(m_gateway);
    out["log"] = log_json();
    return json_page(out);
}

} // namespace rtls
