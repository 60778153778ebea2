// Which nodes may register.
#include "registry/nodes_container.h"

#include "support/hex_bytes.h"
#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace rtls {

using testing::ElementsAre;
using testing::IsEmpty;

class admission : public testing::Test {
protected:
    bool registers(std::string_view mac)
    {
        const nodes_guard guard{m_nodes};
        return m_nodes.find_or_create_by_mac(hex(mac).data(), nullptr) != nullptr;
    }

    log_capture m_log;
    NODES_CONTAINER_t m_nodes;
};

TEST_F(admission, is_everybodys_without_a_list)
{
    EXPECT_TRUE(registers("00 01 02 03 04 05 06 07"));
}

TEST_F(admission, of_the_listed_alone)
{
    m_nodes.admit_only(*parse_macs("0001020304050600/56, FFFFFFFFFFFFFFFF"));
    EXPECT_TRUE(registers("00 01 02 03 04 05 06 07"));
    EXPECT_TRUE(registers("FF FF FF FF FF FF FF FF"));
    EXPECT_FALSE(registers("00 01 02 03 04 05 07 07"));
    EXPECT_FALSE(registers("FF FF FF FF FF FF FF FE"));
    EXPECT_TRUE(registers("00 01 02 03 04 05 06 07")) << "a known node again";
    const nodes_guard guard{m_nodes};
    EXPECT_EQ(m_nodes.size(), 2U);
}

TEST_F(admission, refused_is_said_once_an_episode)
{
    m_nodes.admit_only(*parse_macs("0001020304050607"));
    for (int round = 0; round < 50; ++round)
        EXPECT_FALSE(registers("00 01 02 03 04 AB CD EF"));
    EXPECT_THAT(m_log.messages("main"),
                ElementsAre("nodes: 0001020304a:bcdef is not among the MACs that may register"));
}

TEST_F(admission, knows_a_node_that_was_there_before)
{
    EXPECT_TRUE(registers("00 01 02 03 04 05 06 07"));
    m_nodes.admit_only(*parse_macs("1111111111111111"));
    EXPECT_TRUE(registers("00 01 02 03 04 05 06 07"));
    EXPECT_THAT(m_log.messages("main"), IsEmpty());
}

} // namespace rtls
