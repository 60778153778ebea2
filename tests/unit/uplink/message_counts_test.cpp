// Every message from a bridge ends in one outcome of one type, and what is forwarded is offered to a queue.
#include "base/prefix_list.h"
#include "registry/nodes_container.h"
#include "support/bridge_message_fixture.h"

#include <map>
#include <random>
#include <string>
#include <utility>

namespace rtls {

namespace {

using seen = std::pair<message_type, message_outcome>;

class message_counts : public bridge_message_fixture {
protected:
    uint64_t all() const
    {
        uint64_t sum = 0;
        for (const auto& of_type : server->counts.messages)
            sum += of_type.sum();
        return sum;
    }

    uint64_t with(message_outcome outcome) const
    {
        uint64_t sum = 0;
        for (const auto& of_type : server->counts.messages)
            sum += of_type[outcome].value();
        return sum;
    }

    // Offered to the queue: handed over, lost, or waiting.
    static uint64_t offered(const upstream_queue& queue)
    {
        uint64_t sum =
            queue.counts().at_once.value() + queue.counts().waiting.value() + queue.counts().lost.sum();
        for (size_t range = 0; range < time_counts::ranges; ++range)
            sum += queue.counts().after_wait.in_range(range);
        return sum;
    }

    // What the frame is counted as; it is counted once.
    seen counted(const bytes_t& frame)
    {
        const auto before = snapshot();
        receive(frame);
        const auto after = snapshot();
        seen found{message_type::kinds, message_outcome::kinds};
        uint64_t changes = 0;
        for (const auto& [key, value] : after)
            if (const uint64_t more = value - before.at(key); more > 0) {
                found = key;
                changes += more;
            }
        EXPECT_EQ(changes, 1U);
        return found;
    }

    void expect_identity(uint64_t received) const
    {
        EXPECT_EQ(all(), received);
        EXPECT_EQ(with(message_outcome::report), offered(server->to_handler));
        EXPECT_EQ(with(message_outcome::line), offered(server->to_proxy_input));
    }

private:
    std::map<seen, uint64_t> snapshot() const
    {
        std::map<seen, uint64_t> all;
        for (size_t t = 0; t < server->counts.messages.size(); ++t)
            for (size_t o = 0; o < counters<message_outcome>::size; ++o)
                all[{static_cast<message_type>(t), static_cast<message_outcome>(o)}] =
                    server->counts.messages[t].value(o);
        return all;
    }
};

bytes_t direct(const bytes_t& message)
{
    return message + hex(sender_ip);
}

} // namespace

TEST_F(message_counts, each_type_is_counted_by_what_becomes_of_it)
{
    using t = message_type;
    using o = message_outcome;
    const bytes_t sensor = payload_message(MSG_SENSOR_IND_NEW, 3, ramp(4));
    EXPECT_EQ(counted(hex("00 00")), seen(t::none, o::too_short));
    EXPECT_EQ(counted(hex("00 00 07")), seen(t::ping, o::answered));
    EXPECT_EQ(counted(with_timestamp(hex("00 00 07 01 02 03"))), seen(t::ping, o::answered));
    EXPECT_EQ(counted(hex("00 02 01 00 00")), seen(t::wrap_ts, o::wrong_size));
    EXPECT_EQ(counted(hex("05 01 00")), seen(t::other, o::unknown_type));
    EXPECT_EQ(counted(direct(sensor)), seen(t::sensor, o::unknown_node));
    EXPECT_EQ(counted(panid_req(1)), seen(t::panid_req, o::answered));
    EXPECT_EQ(counted(panid_req(2)), seen(t::panid_req, o::answered));
    EXPECT_EQ(counted(panid_req(2)), seen(t::panid_req, o::duplicate));
    EXPECT_EQ(counted(hex("01 01 00 00")), seen(t::panid_req, o::wrong_size));
    EXPECT_EQ(counted(announce_root(5)), seen(t::announce_root, o::report));
    EXPECT_EQ(counted(announce_root(5)), seen(t::announce_root, o::duplicate));
    EXPECT_EQ(counted(heartbeat()), seen(t::heartbeat, o::report));
    EXPECT_EQ(counted(heartbeat({.seq = 2})), seen(t::heartbeat, o::report));
    EXPECT_EQ(counted(heartbeat({.seq = 2})), seen(t::heartbeat, o::duplicate));
    EXPECT_EQ(counted(heartbeat({.type = 0x110F, .seq = 3})), seen(t::node_announce, o::report));
    EXPECT_EQ(counted(heartbeat({.seq = 4}) + bytes_t{0}), seen(t::heartbeat, o::wrong_size));
    EXPECT_EQ(counted(direct(sensor)), seen(t::sensor, o::report));
    EXPECT_EQ(counted(sensor), seen(t::sensor, o::wrong_size));
    EXPECT_EQ(counted(envelope(sensor)), seen(t::sensor, o::duplicate)); // seq 3 was the announcement's
    EXPECT_EQ(counted(envelope(payload_message(MSG_SENSOR_IND_NEW, 8, ramp(4)))), seen(t::sensor, o::report));
    expect_identity(21);
}

TEST_F(message_counts, envelopes_that_are_refused_count_as_their_own_type)
{
    using t = message_type;
    using o = message_outcome;
    EXPECT_EQ(counted(envelope({})), seen(t::nwk_data_ind, o::wrong_size));
    EXPECT_EQ(counted(envelope({}, sender_mac, 0x0A00)), seen(t::trf2srv_via_client, o::wrong_size));
    EXPECT_EQ(counted(envelope(hex("FF"))), seen(t::other, o::unknown_type));
    expect_identity(3);
}

TEST_F(message_counts, generic_requests_end_where_they_are_answered)
{
    using t = message_type;
    using o = message_outcome;
    introduce(sender_mac, sender_ip);
    EXPECT_EQ(counted(direct(generic_req(1, 10, ramp(16)))), seen(t::generic_server_req, o::line));
    EXPECT_EQ(counted(direct(generic_req(1, 40, ramp(26)))), seen(t::generic_server_req, o::line));
    EXPECT_EQ(counted(direct(generic_req(1, 48, ramp(8)))), seen(t::generic_server_req, o::report));
    EXPECT_EQ(counted(direct(generic_req(1, 16, ramp(12)))),
              seen(t::generic_server_req, o::report)); // no such page
    EXPECT_EQ(server->counts.page_requests[page_request_outcome::not_found].value(), 1U);
    expect_identity(4);
}

TEST_F(message_counts, an_acknowledgement_is_counted_when_it_is_sent)
{
    receive(heartbeat({.type = 0x1104, .seq = 1}));
    receive(heartbeat({.type = 0x0104, .seq = 2}));
    receive(heartbeat({.type = 0x1104, .seq = 2})); // a duplicate gets one, too
    EXPECT_EQ(server->counts.acknowledgements.value(), 2U);
}

TEST_F(message_counts, an_acknowledgement_that_the_bridge_cannot_take_is_not_counted)
{
    bridge->unsent_messages.append(bytes_t(unsent_messages_limit, 1));
    receive(heartbeat({.type = 0x1104, .seq = 1}));
    EXPECT_EQ(server->counts.bridge_messages_lost[bridge_message_loss::queue_full].value(), 1U);
    EXPECT_EQ(server->counts.acknowledgements.value(), 0U);
}

TEST_F(message_counts, without_a_registry_to_take_the_node_the_message_is_refused_by_it)
{
    nodes->admit_only(*parse_macs("1111111111111111"));
    EXPECT_EQ(counted(heartbeat()), seen(message_type::heartbeat, message_outcome::foreign_node));
    EXPECT_EQ(counted(envelope(hex("FF"))), seen(message_type::nwk_data_ind, message_outcome::foreign_node));
    expect_identity(2);
}

// Whatever comes in, each message is counted once, and what was forwarded was offered.
TEST_F(message_counts, the_identity_holds_for_any_bytes)
{
    std::mt19937 random{20261122};
    const auto chance = [&](unsigned one_in) { return random() % one_in == 0; };
    const std::vector<bytes_t> seeds = {heartbeat(),
                                        heartbeat({.type = 0x110F}),
                                        panid_req(1),
                                        announce_root(1),
                                        hex("00 00 07 01"),
                                        direct(payload_message(MSG_SENSOR_IND_NEW, 1, ramp(9))),
                                        direct(generic_req(1, 10, ramp(24))),
                                        direct(generic_req(1, 40, ramp(37))),
                                        envelope(payload_message(MSG_SENSOR_IND_NEW, 1, ramp(9))),
                                        envelope(heartbeat_body({})),
                                        with_timestamp(heartbeat()),
                                        envelope(generic_req(1, 16, ramp(12)), sender_mac, 0x0A00)};
    uint64_t received = 0;
    for (int round = 0; round < 20'000; ++round) {
        bytes_t frame = seeds[random() % seeds.size()];
        if (chance(3))
            frame.resize(random() % (frame.size() + 4));
        for (size_t i = random() % 4; i > 0 && !frame.empty(); --i)
            frame[random() % frame.size()] = static_cast<uint8_t>(random());
        receive(frame);
        ++received;
        if (round % 50 == 0) { // the servers take what is there
            reports();
            management_texts();
            replies();
        }
    }
    expect_identity(received);
    EXPECT_GT(with(message_outcome::report), 1000U);
    EXPECT_GT(with(message_outcome::line), 100U);
    EXPECT_GT(with(message_outcome::duplicate), 100U);
    EXPECT_GT(with(message_outcome::wrong_size), 1000U);
}

// Nobody takes anything: the queues fill, and everything is lost and counted.
TEST_F(message_counts, the_identity_holds_while_the_queues_overflow)
{
    introduce(sender_mac, sender_ip);
    constexpr uint64_t number = 5000; // more than a queue holds
    for (uint64_t i = 0; i < number; ++i) {
        receive(direct(payload_message(MSG_SENSOR_IND_NEW, 1, ramp(9))));
        receive(direct(generic_req(1, 10, ramp(16))));
    }
    expect_identity(2 * number);
    EXPECT_GT(server->to_handler.counts().lost[upstream_loss::overflow].value(), 0U);
    EXPECT_GT(server->to_proxy_input.counts().lost[upstream_loss::overflow].value(), 0U);
    EXPECT_EQ(server->to_handler.counts().at_once.value(), reports().size());
    EXPECT_EQ(server->to_proxy_input.counts().at_once.value(), management_texts().size());
}

} // namespace rtls
