// node_query - which nodes a client wants to see, and the page of them: the parameters of /api/v1/nodes.
//
//     bridge   only nodes of the bridge with this MAC
//     state    connected, floating (alive, but of no connected bridge) or expired
//     text     only nodes whose MAC, role or address contains it; case does not count
//     limit    how many at most: 1 to 1000; 100 without
//     after    a MAC: only nodes behind it, in the order of MACs; `next` of the page before
// Ownership  Values.
// Threads    Any: pure.
// Failures   std::bad_alloc.
#pragma once

#include "http/json_text.h"
#include "registry/addresses.h"
#include "server/win_server.h"
#include "terminal/listing.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace rtls {

enum class node_status { connected, floating, expired };
node_status status_of(const node_row& node);
const char* status_name(node_status status);
const char* role_name(uint8_t type);

// 16 hex digits; colons between them do not count.
std::optional<mac_array> parse_mac(std::string_view text);

struct node_query {
    std::optional<mac_array> bridge;
    std::optional<node_status> status;
    std::string text; // lower case
    std::optional<mac_array> after;
    size_t limit = 100;

    // Nothing, and why, when a parameter can't be read or is none of these.
    static std::optional<node_query> read(const std::multimap<std::string, std::string>& parameters,
                                          std::string& fault);
    bool matches(const node_row& node, std::span<const win_client_info> bridges) const;
};

// One node in JSON.
json node_json(const node_row& node, std::span<const win_client_info> bridges);

// What a walk over all nodes leaves of them. Keeps as many rows as the page has.
class nodes_page {
public:
    nodes_page(node_query query, std::span<const win_client_info> bridges)
        : m_query(std::move(query)), m_bridges(bridges)
    {
    }

    void take(std::span<const node_row> rows);
    void begin_anew();
    json as_json();

private:
    void take(const node_row& row);

    const node_query m_query;
    const std::span<const win_client_info> m_bridges;
    std::vector<node_row> m_rows; // a heap, the last MAC on top
    size_t m_matching = 0;        // all that match, whatever page they are on
    size_t m_behind = 0;          // of these, behind `after`
};

} // namespace rtls
