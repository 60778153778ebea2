#include "terminal/listing.h"

#include "base/common.h"
#include "base/logger.h"
#include "base/peer.h"
#include "registry/nodes_container.h"
#include "terminal/request.h"
#include "terminal/terminal_server_private.h"
#include "terminal/texts.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>

namespace rtls {

// --- Lines

std::string terminal_client_line(const TERMINAL_CLIENT_t& client, bool is_asking)
{
    return text_format("%sip:%s:%d sub:%d grep:%s\n", is_asking ? "+" : " ",
                       ipv4_text{client.client_addr}.c_str(), ntohs(client.client_addr.sin_port),
                       client.subscribed, client.grep_string ? client.grep_string->c_str() : "--");
}

std::string win_client_line(const sockaddr_in& addr)
{
    return text_format(" ip:%s:%d\n", ipv4_text{addr}.c_str(), ntohs(addr.sin_port));
}

std::string bridge_line(const uint8_t* mac_addr, const sockaddr_in& addr)
{
    return text_format("Bridge MAC:%s ip4:%s:%d\n", colon_mac_text{mac_addr}.c_str(), ipv4_text{addr}.c_str(),
                       ntohs(addr.sin_port));
}

const char* get_node_type(uint8_t type)
{
    static constexpr const char* names[] = {"und", "fix", "m2d", "c p", "brg", "t2d", "sen"};
    const size_t role = type & 0x0F;
    return role < std::size(names) ? names[role] : "unk";
}

namespace {

// The pieces of a node line that depend on the clock.
struct activity_time_texts {
    char date[20] = ""; // " act:%m-%d %H:%M:%S"
    char age[32] = "";  // " (hh:mm:ss)"
};

} // namespace

static activity_time_texts activity_texts(const timeval& last_activity, const timeval& now)
{
    activity_time_texts texts;
    tm utc{};
    if (gmtime_r(&last_activity.tv_sec, &utc))
        strftime(texts.date, sizeof texts.date, " act:%m-%d %H:%M:%S", &utc);
    timeval age{};
    timersub(&now, &last_activity, &age);
    const auto seconds = static_cast<unsigned long>(std::max<time_t>(age.tv_sec, 0)); // the clock may go back
    snprintf(texts.age, sizeof texts.age, " (%02u:%02u:%02u)", static_cast<unsigned>(seconds / 3600),
             static_cast<unsigned>(seconds % 3600 / 60), static_cast<unsigned>(seconds % 60));
    return texts;
}

std::string node_line(const node_row& node, bool full, const timeval* now)
{
    const activity_time_texts activity =
        now ? activity_texts(node.last_activity, *now) : activity_time_texts{};
    const uint8_t* m = node.mac_addr;
    const uint8_t* par = node.parent_addr;
    const char* type = get_node_type(node.type);
    const char* forwarded = node.forwarded_ip ? "FW" : "  ";
    const char* duplicate = node.address_duplicated ? " IP address is duplicated!" : "";
    const char* direct = node.direct_mask ? "yes" : " no";
    if (!full)
        return text_format("%01x%02x%02x %s %02x par:%01x%02x%02x sw:%08x rgf:%3d ttl:%3d sl:%02x %s%s%s "
                           "dtx:%s\n",
                           m[5] & 0x0F, m[6], m[7], type, node.state, par[5] & 0x0F, par[6], par[7],
                           node.sw_version, node.ranging_freq, node.lifetime, node.sublocation_id, forwarded,
                           activity.age, duplicate, direct);
    return text_format("%s %s %02x par:%01x%02x%02x sw:%08x rgf:%4d "
                       "ttl:%3d sl:%02x xyz:%8d,%8d,%8d:%-4d ip:%s %s%s%s%s dtx:%s\n",
                       colon_mac_text{m}.c_str(), type, node.state, par[5] & 0x0F, par[6], par[7],
                       node.sw_version, node.ranging_freq, node.lifetime, node.sublocation_id, node.pos_X,
                       node.pos_Y, node.z_val, node.z_offset * 10, forwarded, ipv6_text{node.ip_addr}.c_str(),
                       activity.date, activity.age, duplicate, direct);
}

// --- Snapshot

static std::string_view as_key(bytes_view bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

bridge_index index_bridges(std::span<const win_client_info> bridges)
{
    bridge_index index;
    index.reserve(bridges.size());
    uint32_t position = 0;
    for (const auto& bridge : bridges)
        index.emplace(as_key(bridge.id.view()), position++);
    return index;
}

static uint32_t bridge_of(const NODE_t& node, const bridge_index& bridges)
{
    if (!node.win_client_id)
        return no_bridge;
    const auto found = bridges.find(as_key(frame_bytes(node.win_client_id.get())));
    return found == bridges.end() ? no_bridge : found->second;
}

void copy_node(const NODE_t& node, const bridge_index& bridges, node_row& row)
{
    row.last_activity = node.last_activity;
    row.bridge = bridge_of(node, bridges);
    row.sw_version = node.sw_version;
    row.pos_X = node.pos_X;
    row.pos_Y = node.pos_Y;
    row.z_val = node_z_val(node);
    row.z_offset = node_z_offset(node);
    row.lifetime = node.lifetime;
    row.type = node.type;
    row.state = node.state;
    row.ranging_freq = node.ranging_freq;
    row.sublocation_id = node.sublocation_id;
    row.forwarded_ip = node.forwarded_ip;
    row.direct_mask = node.direct_mask;
    row.address_duplicated = false;
    std::memcpy(row.mac_addr, node.mac_addr, sizeof row.mac_addr);
    std::memcpy(row.parent_addr, node.parent_addr, sizeof row.parent_addr);
    std::memcpy(row.ip_addr, node.ip_addr, sizeof row.ip_addr);
}

void copy_nodes_locked(NODES_CONTAINER_t& nodes, const bridge_index& bridges, std::vector<node_row>& rows)
{
    rows.resize(nodes.size());
    size_t count = 0;
    NODE_t* node = nodes.first();
    for (; node && count < rows.size(); node = nodes.next())
        copy_node(*node, bridges, rows[count++]);
    rows.resize(count);
}

static size_t size_of(NODES_CONTAINER_t& nodes)
{
    const nodes_guard guard{nodes};
    return nodes.size();
}

std::vector<node_row> copy_nodes(NODES_CONTAINER_t& nodes, const bridge_index& bridges)
{
    std::vector<node_row> rows(size_of(nodes)); // the pages are fetched here, not under the lock
    const nodes_guard guard{nodes};
    copy_nodes_locked(nodes, bridges, rows);
    return rows;
}

namespace {

// What makes two nodes of one bridge indistinguishable to it.
struct address_of_bridge {
    uint32_t bridge;
    uint8_t ip_addr[ip_addr_size];
    node_row* row;

    bool operator<(const address_of_bridge& other) const
    {
        if (bridge != other.bridge)
            return bridge < other.bridge;
        return std::memcmp(ip_addr, other.ip_addr, sizeof ip_addr) < 0;
    }
    bool operator==(const address_of_bridge& other) const
    {
        return bridge == other.bridge && std::memcmp(ip_addr, other.ip_addr, sizeof ip_addr) == 0;
    }
};

} // namespace

// Sorted rather than hashed: the addresses are the nodes' choice, and must not be able to make it slow.
void mark_duplicate_addresses(std::span<node_row> nodes)
{
    std::vector<address_of_bridge> addresses;
    addresses.reserve(nodes.size());
    for (auto& node : nodes) {
        if (node.lifetime == 0 || node.forwarded_ip || node.bridge == no_bridge)
            continue;
        auto& address = addresses.emplace_back(address_of_bridge{node.bridge, {}, &node});
        std::memcpy(address.ip_addr, node.ip_addr, sizeof address.ip_addr);
    }
    std::sort(addresses.begin(), addresses.end());
    for (size_t i = 1; i < addresses.size(); ++i)
        if (addresses[i] == addresses[i - 1]) {
            addresses[i].row->address_duplicated = true;
            addresses[i - 1].row->address_duplicated = true;
        }
}

node_groups group_nodes(std::span<const node_row> nodes, size_t bridges_number)
{
    node_groups groups;
    groups.by_bridge.resize(bridges_number);
    for (const auto& node : nodes) {
        if (node.lifetime == 0)
            groups.expired.push_back(&node);
        else if (node.bridge == no_bridge)
            groups.floating.push_back(&node);
        else
            groups.by_bridge[node.bridge].push_back(&node);
    }
    return groups;
}

// --- Commands

namespace {

// The rows of a listing on their way out, several in a frame: the socket queues a number of frames for an
// operator who reads slowly, whatever their size, and a listing of one row a frame would be cut off there.
// Rows that are left at the end go out with it. The listing ends at the first frame that the operator does
// not take: none of the others would reach him.
class listing_rows {
public:
    explicit listing_rows(const terminal_request& request) : m_request(request)
    {
        m_rows.reserve(frame_size);
    }
    ~listing_rows() { flush(); }
    listing_rows(const listing_rows&) = delete;
    listing_rows& operator=(const listing_rows&) = delete;

    // False when the listing has ended.
    bool add(std::string_view row)
    {
        if (m_rows.size() + row.size() > frame_size && !flush())
            return false;
        m_rows += row;
        return true;
    }

private:
    // 40,000 nodes come to 8 MB, for which half of the thousand frames that may wait is enough; and who does
    // not read at all holds 16 MB at most.
    static constexpr size_t frame_size = size_t{16} * 1024;

    bool flush() noexcept
    {
        m_is_taken = m_is_taken && (m_rows.empty() || m_request.answer(m_rows));
        m_rows.clear();
        return m_is_taken;
    }

    const terminal_request& m_request;
    std::string m_rows;
    bool m_is_taken = true;
};

} // namespace

static bool add_terminals(listing_rows& rows, const operator_table& terminals, zframe_t* asking)
{
    return terminals.all_of([&](const TERMINAL_CLIENT_t& terminal) {
        return terminal.has_left || // only what he had sent is still to be done
               rows.add(terminal_client_line(terminal, zframe_eq(terminal.id.get(), asking)));
    });
}

// The clients of both kinds. The title goes alone: who does not take it costs no listing.
void command_pcl(const terminal_request& request)
{
    WIN_SERVER_t* win_server = request.gateway.win_server;
    if (!win_server) {
        logger_error(g_logger, str_null_win_clients, __func__);
        return;
    }
    if (!request.answer("####### Terminal clients\n"))
        return;
    listing_rows rows{request};
    if (!add_terminals(rows, request.server.clients, request.client->id.get()) ||
        !rows.add("####### WIN clients:\n"))
        return;
    for (const auto& bridge : win_server_copy_clients(*win_server))
        if (!rows.add(win_client_line(bridge.addr)))
            return;
    rows.add("##\n");
}

static bool add_nodes(listing_rows& rows, std::span<const node_row* const> nodes, bool full,
                      const timeval* now)
{
    return std::all_of(nodes.begin(), nodes.end(),
                       [&](const node_row* node) { return rows.add(node_line(*node, full, now)); });
}

static void send_listing(const terminal_request& request, std::span<const win_client_info> bridges,
                         const node_groups& groups, bool full)
{
    listing_rows rows{request};
    for (size_t i = 0; i < bridges.size(); ++i)
        if (!rows.add(bridge_line(bridges[i].mac_addr, bridges[i].addr)) ||
            !add_nodes(rows, groups.by_bridge[i], full, nullptr))
            return;
    timeval now{};
    gettimeofday(&now, nullptr);
    if (rows.add("####### Floating nodes\n") && add_nodes(rows, groups.floating, full, nullptr) &&
        rows.add("####### Expired nodes\n") && add_nodes(rows, groups.expired, full, &now))
        rows.add("##\n");
}

// The bridges with their nodes, then the nodes without a connected bridge, then the expired ones.
static void list_nodes(const terminal_request& request, bool full)
{
    if (!request.answer("####### Connected Nodes\n"))
        return;
    WIN_SERVER_t* win_server = request.gateway.win_server;
    if (!win_server) {
        logger_error(g_logger, str_null_win_clients, "command_pn");
        return;
    }
    NODES_CONTAINER_t* registry = request.gateway.nodes;
    if (!registry) {
        logger_error(g_logger, str_null_nodes_container, "command_pn");
        return;
    }
    const auto bridges = win_server_copy_clients(*win_server);
    auto nodes = copy_nodes(*registry, index_bridges(bridges));
    mark_duplicate_addresses(nodes);
    send_listing(request, bridges, group_nodes(nodes, bridges.size()), full);
}

void command_pn(const terminal_request& request)
{
    list_nodes(request, false);
}

void command_pnf(const terminal_request& request)
{
    list_nodes(request, true);
}

} // namespace rtls
