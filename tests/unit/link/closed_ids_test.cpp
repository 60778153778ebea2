#include "link/closed_ids.h"

#include <gtest/gtest.h>

#include <string>

namespace rtls {

TEST(closed_ids, are_remembered_once_and_in_bounded_number)
{
    closed_id_set ids;
    EXPECT_FALSE(ids.forget("0000000001"));
    ids.remember("0000000001");
    EXPECT_FALSE(ids.forget("0000000002"));
    EXPECT_TRUE(ids.forget("0000000001"));
    EXPECT_FALSE(ids.forget("0000000001"));
    EXPECT_TRUE(ids.empty());

    const size_t many = 5 * closed_id_set::generation_size;
    for (size_t i = 0; i < many; ++i)
        ids.remember(std::to_string(i).c_str());
    EXPECT_LE(ids.size(), 2 * closed_id_set::generation_size);
    for (size_t i = many - closed_id_set::generation_size; i < many; ++i)
        ASSERT_TRUE(ids.forget(std::to_string(i).c_str())) << i;
}

} // namespace rtls
