#include "registry/node.h"

#include "base/czmq_ptr.h"
#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace rtls {

using testing::ElementsAre;
using testing::IsEmpty;

static NODE_t* new_node()
{
    return new NODE_t;
}

TEST(node_destroy, takes_null)
{
    void* p_node = nullptr;
    node_destroy(&p_node);
    EXPECT_EQ(p_node, nullptr);
    node_destroy(nullptr);
}

// What is not freed here, the leak check of the sanitizer build reports.
TEST(node_destroy, frees_all_that_the_node_owns_and_leaves_null)
{
    for (const bool has_client : {false, true})
        for (const bool has_data : {false, true}) {
            NODE_t* node = new_node();
            if (has_client)
                node->win_client_id.reset(zframe_new("12345", 5));
            if (has_data)
                node->last_data.resize(64);
            void* p_node = node;
            node_destroy(&p_node);
            EXPECT_EQ(p_node, nullptr);
        }
}

class node_update_win_client : public testing::Test {
protected:
    ~node_update_win_client() override { node_destroy(&p_node); }

    log_capture log;
    NODE_t* node = new_node();
    void* p_node = node;
    zframe_ptr first{zframe_new("\0\1\2\3\4", 5)};
    zframe_ptr second{zframe_new("\0\1\2\3\5", 5)};
};

TEST_F(node_update_win_client, keeps_a_copy)
{
    EXPECT_TRUE(node_update_win_client_ID(node, first.get()));
    EXPECT_NE(node->win_client_id.get(), first.get());
    EXPECT_TRUE(zframe_eq(node->win_client_id.get(), first.get()));
    first.reset();
    EXPECT_EQ(zframe_size(node->win_client_id.get()), 5U);
    EXPECT_THAT(log.messages("main"), IsEmpty());
}

TEST_F(node_update_win_client, replaces_another_one)
{
    ASSERT_TRUE(node_update_win_client_ID(node, first.get()));
    EXPECT_TRUE(node_update_win_client_ID(node, second.get()));
    EXPECT_TRUE(zframe_eq(node->win_client_id.get(), second.get()));
}

TEST_F(node_update_win_client, does_not_copy_the_same_one_again)
{
    ASSERT_TRUE(node_update_win_client_ID(node, first.get()));
    const zframe_t* kept = node->win_client_id.get();
    const zframe_ptr same{zframe_dup(first.get())};
    EXPECT_TRUE(node_update_win_client_ID(node, same.get()));
    EXPECT_EQ(node->win_client_id.get(), kept);
    EXPECT_TRUE(node_update_win_client_ID(node, node->win_client_id.get()));
    EXPECT_EQ(node->win_client_id.get(), kept);
}

TEST(node_height, reads_as_two_halves)
{
    const struct {
        int32_t pos_Z;
        int16_t z_val;
        int16_t z_offset;
    } cases[] = {
        {0, 0, 0},       {0x00020001, 1, 2}, {0x0000FFFF, -1, 0},
        {-65536, 0, -1}, {-1, -1, -1},       {0x7FFF8000, -32768, 32767},
    };
    for (const auto& c : cases) {
        NODE_t node{};
        node.pos_Z = c.pos_Z;
        EXPECT_EQ(node_z_val(node), c.z_val) << c.pos_Z;
        EXPECT_EQ(node_z_offset(node), c.z_offset) << c.pos_Z;
    }
}

} // namespace rtls
