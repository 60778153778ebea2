#include "tap/tap_payloads.h"

#include "support/hex_bytes.h"

#include <gtest/gtest.h>

#include <deque>

namespace rtls {

TEST(tap_payloads, a_copy_has_the_same_bytes_whatever_its_size)
{
    tap_payloads payloads;
    for (const size_t size : {size_t{0}, size_t{1}, tap_payloads::largest_small,
                              tap_payloads::largest_small + 1, size_t{200'000}}) {
        const bytes_t original = ramp(size);
        message_part copy = payloads.copy(original);
        ASSERT_TRUE(copy.is_made());
        EXPECT_EQ(bytes_t(copy.bytes().begin(), copy.bytes().end()), original);
        EXPECT_EQ(payloads.held(), size > tap_payloads::largest_small ? size : 0);
    }
    EXPECT_EQ(payloads.held(), 0U);
}

TEST(tap_payloads, large_ones_are_made_up_to_the_bound)
{
    constexpr size_t size = tap_payloads::large_bound / 4;
    const bytes_t original(size, 1);
    tap_payloads payloads;
    std::deque<message_part> copies;
    for (int i = 0; i < 4; ++i) {
        message_part copy = payloads.copy(original);
        copies.emplace_back().take(copy);
    }
    EXPECT_EQ(payloads.held(), 4 * size);
    EXPECT_FALSE(payloads.copy(bytes_view{original}.first(tap_payloads::largest_small + 1)).is_made());
    EXPECT_TRUE(payloads.copy(bytes_view{original}.first(tap_payloads::largest_small)).is_made());
    copies.pop_front();
    EXPECT_TRUE(payloads.copy(original).is_made());
}

} // namespace rtls
