// Every command ends in one outcome of one type.
#include "downlink/win_server_pub_sub_proxy.h"
#include "firmware/image_download.h"
#include "link/sending.h"
#include "support/proxy_fixture.h"
#include "support/win_link.h"

#include <map>
#include <utility>

namespace rtls {

namespace {

using seen = std::pair<command_type, command_outcome>;

class command_counts : public proxy_fixture {
protected:
    // What the command is counted as; it is counted once.
    seen counted(const std::string& command)
    {
        const auto before = snapshot();
        process(command);
        return difference(before);
    }

    std::map<seen, uint64_t> snapshot() const
    {
        std::map<seen, uint64_t> all;
        for (size_t t = 0; t < server->counts.commands.size(); ++t)
            for (size_t o = 0; o < counters<command_outcome>::size; ++o)
                all[{static_cast<command_type>(t), static_cast<command_outcome>(o)}] =
                    server->counts.commands[t].value(o);
        return all;
    }

    seen difference(const std::map<seen, uint64_t>& before) const
    {
        seen found{command_type::kinds, command_outcome::kinds};
        uint64_t changes = 0;
        for (const auto& [key, value] : snapshot())
            if (const uint64_t more = value - before.at(key); more > 0) {
                found = key;
                changes += more;
            }
        EXPECT_EQ(changes, 1U);
        return found;
    }
};

} // namespace

TEST_F(command_counts, each_type_is_counted_by_what_becomes_of_it)
{
    using t = command_type;
    using o = command_outcome;
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    const auto fresh = [&] { fresh_node({.bridge = bridge}); };
    const std::string ack = digits("0810 01") + mac;

    EXPECT_EQ(counted(repeated("08", 10)), seen(t::undecodable, o::malformed));
    EXPECT_EQ(counted(repeated("08", 11)), seen(t::other, o::unknown_type));
    EXPECT_EQ(counted(digits("0810 01") + stranger), seen(t::rest_ack, o::node_not_found));
    EXPECT_EQ(counted(digits("0810 0100") + stranger), seen(t::rest_ack, o::malformed));
    fresh();
    EXPECT_EQ(counted(ack), seen(t::rest_ack, o::cached)); // nobody is connected in this test
    EXPECT_EQ(counted(digits("080E 01 0002 0011") + stranger), seen(t::generic_req, o::node_not_found));
    EXPECT_EQ(counted(digits("080E 01 0003 0011") + stranger), seen(t::generic_req, o::malformed));
    fresh();
    EXPECT_EQ(counted(digits("080E 01 0002 0011") + mac), seen(t::generic_req, o::cached));
    fresh();
    EXPECT_EQ(counted(digits("0815 01 0002 0011") + mac), seen(t::sensor_req, o::cached));
    fresh();
    EXPECT_EQ(counted(digits("0816 01 0002 0011") + mac), seen(t::conf_sensor_req, o::cached));
    fresh();
    EXPECT_EQ(counted(digits("0817 01 0002 0011") + mac), seen(t::tdoa_sched_conf_req, o::cached));
    EXPECT_EQ(counted(digits("0804 01") + mac), seen(t::conf_node_req, o::malformed));
    EXPECT_EQ(counted(digits("0800 01") + mac), seen(t::nwk_data_req, o::malformed));
    EXPECT_EQ(counted(digits("0012 01") + mac), seen(t::ota_upload_fw, o::malformed));
    EXPECT_EQ(counted(digits("080D 01") + mac), seen(t::fw_image_avail_ind, o::malformed));
}

TEST_F(command_counts, what_the_bridge_has_no_room_for_is_lost)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    fresh_node({.bridge = bridge});
    bridge->unsent_messages.append(bytes_t(unsent_messages_limit, 1));
    EXPECT_EQ(counted(digits("0810 01") + mac), seen(command_type::rest_ack, command_outcome::lost));
}

TEST_F(command_counts, an_order_of_an_image_is_no_more_than_ordered)
{
    image_download_only_from({"nowhere:"});
    EXPECT_EQ(counted(digits("0012 01020304 00000000 0001 61")),
              seen(command_type::ota_upload_fw, command_outcome::ordered));
    EXPECT_EQ(counted(digits("080D 01020304 00000000 0002 6162")),
              seen(command_type::fw_image_avail_ind, command_outcome::ordered));
    image_download_only_from({});
}

TEST(command_counts_of_a_link, what_the_connection_takes_is_sent)
{
    const win_link link;
    auto bridge = link.connect();
    const bytes_t mac = hex("01 02 03 04 05 06 07 08");
    link.server().clients.set_mac_addr(*bridge.client, mac.data());
    link.make_wanted(*bridge.client);
    bytes_t command = hex("08 10 01") + mac;
    process_data_from_pub_sub_proxy(&link.server(), command.data(), command.size());
    const auto& of_type = link.server().counts.commands[static_cast<size_t>(command_type::rest_ack)];
    EXPECT_EQ(of_type[command_outcome::sent].value(), 1U);
    EXPECT_EQ(of_type.sum(), 1U);
    EXPECT_FALSE(bridge.peer.receive(1).empty());
}

TEST_F(command_counts, a_repeat_is_counted_as_one)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    const uint64_t before = server->counts.commands[static_cast<size_t>(command_type::rest_ack)].sum();
    ASSERT_TRUE(sends_a_repeat_in_time(digits("0810 01") + mac, digits("0810 02") + mac, bridge));
    const auto& of_type = server->counts.commands[static_cast<size_t>(command_type::rest_ack)];
    EXPECT_GE(of_type[command_outcome::repeat].value(), 1U);
    EXPECT_EQ((of_type.sum() - before) % 2, 0U); // pairs, each command counted once
}

TEST_F(command_counts, a_bridge_that_has_gone_is_told_from_a_node_that_is_unknown)
{
    fresh_node({.bridge = add_bridge("0000000001")});
    disconnect("0000000001");
    EXPECT_EQ(counted(digits("0810 01") + mac), seen(command_type::rest_ack, command_outcome::no_bridge));
}

TEST_F(command_counts, what_waits_for_a_bridge_is_lost_with_it_and_counted)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    fresh_node({.bridge = bridge});
    process(digits("0810 01") + mac);
    const win_counters& counts = server->counts;
    EXPECT_EQ(counts.bridge_messages_cached.value(), 1U);
    delete_win_client(server, bridge->id);
    EXPECT_EQ(counts.bridge_messages_lost[bridge_message_loss::bridge_closed].value(), 1U);
    EXPECT_EQ(counts.bridge_messages_flushed.value(), 0U);
}

} // namespace rtls
