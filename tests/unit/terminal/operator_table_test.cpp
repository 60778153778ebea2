#include "terminal/operator_table.h"

#include "support/texts.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

namespace rtls {

static std::unique_ptr<TERMINAL_CLIENT_t> operator_who_filters(const std::string& pattern)
{
    auto client = std::make_unique<TERMINAL_CLIENT_t>();
    client->grep_string = pattern;
    return client;
}

TEST(operator_table, finds_each_by_its_identity_until_it_is_erased)
{
    operator_table table;
    ASSERT_TRUE(table.is_made());
    EXPECT_EQ(table.find("01"), nullptr);
    EXPECT_TRUE(table.insert("01", operator_who_filters("one")));
    EXPECT_TRUE(table.insert("02", operator_who_filters("two")));
    EXPECT_EQ(table.size(), 2U);
    ASSERT_NE(table.find("02"), nullptr);
    EXPECT_EQ(table.find("02")->grep_string, "two");
    table.erase("02");
    EXPECT_EQ(table.find("02"), nullptr);
    table.erase("02");
    EXPECT_EQ(table.size(), 1U);
}

TEST(operator_table, keeps_the_first_of_two_with_one_identity)
{
    operator_table table;
    EXPECT_TRUE(table.insert("01", operator_who_filters("first")));
    EXPECT_FALSE(table.insert("01", operator_who_filters("second")));
    EXPECT_EQ(table.size(), 1U);
    EXPECT_EQ(table.find("01")->grep_string, "first");
}

TEST(operator_table, is_walked_in_the_order_of_the_handed_out_table_and_no_further_than_asked)
{
    operator_table table;
    texts_t keys;
    for (int i = 10; i < 40; ++i)
        ASSERT_TRUE(table.insert(std::to_string(i).c_str(), operator_who_filters(std::to_string(i))));
    for (void* item = zhashx_first(table.records()); item; item = zhashx_next(table.records()))
        keys.emplace_back(static_cast<const char*>(zhashx_cursor(table.records())));
    texts_t walked;
    table.for_each([&](const TERMINAL_CLIENT_t& client) { walked.push_back(*client.grep_string); });
    EXPECT_EQ(walked, keys);

    size_t visited = 0;
    EXPECT_FALSE(table.all_of([&](const TERMINAL_CLIENT_t&) { return ++visited < 3; }));
    EXPECT_EQ(visited, 3U);
}

} // namespace rtls
