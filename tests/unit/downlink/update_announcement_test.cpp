#include "downlink/update_announcement.h"

#include "support/link_clients.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace rtls {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(win_server_nodes_update, reaches_every_bridge_and_marks_it)
{
    log_capture log;
    const win_link link;
    log.take();
    win_server_nodes_update(&link.server(), nullptr);
    EXPECT_THAT(log.take(), IsEmpty());

    std::vector<win_link::linked_bridge> bridges;
    for (int i = 0; i < 3; ++i) {
        bridges.push_back(link.connect());
        bridges.back().client->firmware_updated = true;
    }
    log.take();
    win_server_nodes_update(&link.server(), nullptr);
    for (auto& bridge : bridges) {
        EXPECT_EQ(bridge.peer.receive(5), text_of(hex("F5 18 01 00 F7")));
        EXPECT_FALSE(bridge.client->firmware_updated);
    }
    const char* then = "UPDATE: send cmd: MSG_UPDATE_CMD to brige: 127.0.0.1";
    EXPECT_THAT(log.messages("parsing"), ElementsAre(then, then, then));
}

TEST(win_server_nodes_update, of_one_bridge_leaves_its_mark)
{
    log_capture log;
    const win_link link;
    auto [peer, client] = link.connect();
    auto [other_peer, other_client] = link.connect();
    client->firmware_updated = true;
    log.take();
    win_server_nodes_update(&link.server(), client->id);
    EXPECT_EQ(peer.receive(5), text_of(hex("F5 18 01 00 F7")));
    EXPECT_EQ(other_peer.receive_available(), "");
    EXPECT_TRUE(client->firmware_updated);
    EXPECT_THAT(log.messages("parsing"), ElementsAre("UPDATE: send cmd: MSG_UPDATE_CMD to current node"));
}

// Whoever reads the log sees what a bridge was sent and then why, one bridge after the other.
TEST(win_server_nodes_update, prints_each_line_behind_its_sending_in_the_tables_order)
{
    log_capture log;
    const win_link link;
    const auto bridges = link.connect_many(10);
    log.take();
    win_server_nodes_update(&link.server(), nullptr);
    std::vector<std::string> then;
    for (const auto& key : keys_in_table_order(link)) {
        then.push_back("SLIP_RAW_OUTPUT: F5180100F7 [5] [" + key + "]");
        then.emplace_back("UPDATE: send cmd: MSG_UPDATE_CMD to brige: 127.0.0.1");
    }
    EXPECT_EQ(lines_of(log, {"SLIP_RAW_OUTPUT", "UPDATE:"}), then);
}

} // namespace rtls
