#include "http/node_query.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

namespace rtls {

static node_row row_of(uint64_t mac, uint16_t lifetime = 10, uint32_t bridge = no_bridge)
{
    node_row row{};
    for (size_t i = 0; i < mac_size; ++i)
        row.mac_addr[i] = static_cast<uint8_t>(mac >> 8 * (mac_size - 1 - i));
    row.lifetime = lifetime;
    row.bridge = bridge;
    return row;
}

static std::optional<node_query> query_of(const std::multimap<std::string, std::string>& parameters)
{
    std::string fault;
    return node_query::read(parameters, fault);
}

TEST(node_query, reads_macs_with_or_without_colons)
{
    const mac_array mac{0xAB, 0xCD, 0xEF, 1, 2, 3, 4, 5};
    EXPECT_EQ(parse_mac("ABCDEF0102030405"), mac);
    EXPECT_EQ(parse_mac("ab:cd:ef:01:02:03:04:05"), mac);
    EXPECT_EQ(parse_mac("abcdef010:2030405"), mac);
    for (const char* text :
         {"", ":", "abcdef010203040", "abcdef01020304050", "abcdef010203040g", "abcdef01 2030405"})
        EXPECT_FALSE(parse_mac(text)) << text;
    EXPECT_FALSE(parse_mac(std::string_view{"abcdef010203040\0", 16}));
}

TEST(node_query, knows_three_states)
{
    EXPECT_EQ(status_of(row_of(1, 1, 0)), node_status::connected);
    EXPECT_EQ(status_of(row_of(1, 1)), node_status::floating);
    EXPECT_EQ(status_of(row_of(1, 0, 0)), node_status::expired);
    EXPECT_EQ(status_of(row_of(1, 0)), node_status::expired);
}

TEST(node_query, compares_macs_as_the_listings_write_them)
{
    for (const auto& [text, matches] :
         std::initializer_list<std::pair<const char*, bool>>{{"abcdef01020304", true},
                                                             {"ABCDEF", true},
                                                             {"05060", false},
                                                             {"undef", true},
                                                             {"::", true},
                                                             {"xyz", false}}) {
        const auto query = query_of({{"text", text}});
        ASSERT_TRUE(query);
        EXPECT_EQ(query->matches(row_of(0xABCDEF0102030405), {}), matches) << text;
    }
}

// The pages, one behind the other, are all nodes in the order of their MACs, whatever the order of the walk.
TEST(nodes_page, pages_are_parts_of_the_sorted_whole)
{
    std::mt19937_64 random{7};
    std::vector<node_row> rows;
    for (int i = 0; i < 500; ++i)
        rows.push_back(row_of(random()));
    std::vector<std::string> sorted;
    for (const node_row& row : rows)
        sorted.push_back(node_json(row, {})["mac"]);
    std::ranges::sort(sorted);

    for (const size_t limit : {1U, 7U, 499U, 500U, 1000U}) {
        std::vector<std::string> found;
        std::optional<std::string> after;
        do {
            std::multimap<std::string, std::string> parameters{{"limit", std::to_string(limit)}};
            if (after)
                parameters.emplace("after", *after);
            nodes_page page{query_of(parameters).value(), {}};
            page.take(std::span{rows}.first(3));
            page.begin_anew();
            page.take(rows);
            const json shown = page.as_json();
            EXPECT_EQ(shown["matching"], 500);
            for (const json& node : shown["nodes"])
                found.push_back(node["mac"]);
            after.reset();
            if (!shown["next"].is_null())
                after = shown["next"].get<std::string>();
        } while (after);
        EXPECT_EQ(found, sorted) << limit;
    }
}

} // namespace rtls
