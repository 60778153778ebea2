#include "rtls-sim/tracker.h"

#include <gtest/gtest.h>

namespace sim {

using namespace std::chrono_literals;
using verdict = tracker::verdict;

static const mac_bytes node_mac = device_mac(1, 2);

static sent_report sent_of(const uplink_message& message, std::optional<report_time> time = {})
{
    return {message.kind, message.from, message.seq, message.to, message.content, time, false};
}

static upstream_report received_of(const uplink_message& message, std::optional<report_time> time = {})
{
    upstream_report report;
    report.valid = true;
    report.kind = message.kind;
    report.content = message.content;
    report.time = time.value_or(report_time{static_cast<uint32_t>(realtime_ns() / 1'000'000'000U), 0});
    return report;
}

TEST(sim_tracker, what_arrives_as_it_was_sent_is_expected_once)
{
    tracker t;
    const uplink_message report = make_sensor(node_mac, 1, bytes{1, 2, 3});
    t.sent(sent_of(report));
    EXPECT_EQ(t.counts().waiting(), 1U);
    EXPECT_EQ(t.missing(10).size(), 1U);
    EXPECT_EQ(t.arrived(outlet::handler, received_of(report)), verdict::expected);
    EXPECT_EQ(t.counts().waiting(), 0U);
    EXPECT_TRUE(t.missing(10).empty());
    EXPECT_EQ(t.arrived(outlet::handler, received_of(report)), verdict::unexpected);
    EXPECT_EQ(t.counts().unexpected, 1U);
    EXPECT_EQ(t.counts().received, 1U);
}

TEST(sim_tracker, every_byte_counts)
{
    tracker t;
    const uplink_message report = make_sensor(node_mac, 1, bytes{1, 2, 3});
    for (size_t i = 0; i < report.content.size(); ++i) {
        t.sent(sent_of(report));
        upstream_report changed = received_of(report);
        changed.content[i] = static_cast<char>(changed.content[i] ^ 1);
        EXPECT_EQ(t.arrived(outlet::handler, changed), verdict::unexpected) << i;
    }
    EXPECT_EQ(t.arrived(outlet::proxy_input, received_of(report)), verdict::unexpected);
    upstream_report malformed = received_of(report);
    malformed.valid = false;
    EXPECT_EQ(t.arrived(outlet::handler, malformed), verdict::unexpected);
    EXPECT_EQ(t.counts().received, 0U);
}

TEST(sim_tracker, a_report_sent_twice_is_expected_twice)
{
    tracker t;
    const uplink_message report = make_sensor(node_mac, 1, bytes{1, 2, 3});
    t.sent(sent_of(report));
    t.sent(sent_of(report));
    EXPECT_EQ(t.arrived(outlet::handler, received_of(report)), verdict::expected);
    EXPECT_EQ(t.arrived(outlet::handler, received_of(report)), verdict::expected);
    EXPECT_EQ(t.arrived(outlet::handler, received_of(report)), verdict::unexpected);
}

TEST(sim_tracker, a_time_of_its_own_must_come_through_exactly)
{
    const uplink_message report = make_sensor(node_mac, 1, bytes{1, 2, 3});
    const struct {
        report_time stamped;
        verdict then;
    } cases[] = {
        {{1000, 500}, verdict::expected},
        {{1000, 501}, verdict::wrong_time},
        {{1001, 500}, verdict::wrong_time},
    };
    for (const auto& c : cases) {
        tracker t;
        t.sent(sent_of(report, report_time{1000, 500}));
        EXPECT_EQ(t.arrived(outlet::handler, received_of(report, c.stamped)), c.then);
        EXPECT_EQ(t.counts().wrong_time, c.then == verdict::wrong_time ? 1U : 0U);
        EXPECT_EQ(t.counts().waiting(), 0U);
    }
}

TEST(sim_tracker, a_report_without_one_is_stamped_with_the_present)
{
    tracker t;
    const uplink_message report = make_sensor(node_mac, 1, bytes{1, 2, 3});
    t.sent(sent_of(report));
    EXPECT_EQ(t.arrived(outlet::handler, received_of(report, report_time{1000, 500})), verdict::wrong_time);
}

TEST(sim_tracker, introductions_may_be_dropped)
{
    tracker t;
    sent_report report = sent_of(make_sensor(node_mac, 1, bytes{1}));
    report.optional = true;
    t.sent(report);
    EXPECT_EQ(t.counts().waiting(), 0U);
    EXPECT_TRUE(t.missing(10).empty());
    EXPECT_EQ(t.arrived(outlet::handler, received_of(make_sensor(node_mac, 1, bytes{1}))), verdict::expected);
    EXPECT_EQ(t.counts().received, 0U);
}

TEST(sim_tracker, what_is_given_up_is_lost)
{
    tracker t;
    const uplink_message report = make_sensor(node_mac, 1, bytes{1});
    t.sent(sent_of(report));
    t.give_up(1h);
    EXPECT_EQ(t.counts().lost, 0U);
    t.give_up(-1s);
    EXPECT_EQ(t.counts().lost, 1U);
    EXPECT_EQ(t.counts().in_flight, 0U);
    EXPECT_EQ(t.arrived(outlet::handler, received_of(report)), verdict::unexpected);
}

TEST(sim_tracker, pages_that_the_gateway_lacks_are_no_surprise)
{
    tracker t;
    upstream_report request = received_of(make_ota_page_request(node_mac, 1, {1, 2, 512, 3}));
    request.page = ota_page_id{1, 2, 512, 3};
    EXPECT_EQ(t.arrived(outlet::handler, request), verdict::unserved_page);
    EXPECT_EQ(t.counts().unexpected, 0U);
}

TEST(sim_tracker, what_the_gateway_answers_itself_does_not_look_lost)
{
    tracker reports;
    const sent_report request{kind::prefix_request, {}, 0, outlet::none, {}, {}};
    for (int i = 0; i < 3; ++i)
        reports.sent(request);
    EXPECT_EQ(reports.summary().at(0), "  prefix request     sent         3  answered by the gateway");
}

TEST(sim_tracker, acks_echoes_and_commands_are_awaited)
{
    tracker t;
    t.wanted_ack();
    t.sent_ping();
    t.wanted_command(node_mac, msg::sensor_request, bytes{1, 2});
    EXPECT_EQ(t.counts().waiting(), 3U);
    EXPECT_EQ(t.missing(10), std::vector<std::string>{"missing: command 0815 to E45E510000000102: 0102"});
    EXPECT_FALSE(t.command_arrived(node_mac, code(msg::sensor_request), bytes{1, 3}));
    EXPECT_FALSE(t.command_arrived(node_mac, code(msg::conf_sensor), bytes{1, 2}));
    EXPECT_FALSE(t.command_arrived(device_mac(1, 3), code(msg::sensor_request), bytes{1, 2}));
    EXPECT_TRUE(t.command_arrived(node_mac, code(msg::sensor_request), bytes{1, 2}));
    EXPECT_FALSE(t.command_arrived(node_mac, code(msg::sensor_request), bytes{1, 2}));
    t.acked(true, 1ms);
    t.echoed(true, 1ms);
    EXPECT_EQ(t.counts().waiting(), 0U);
    t.acked(false, 0ms);
    t.echoed(false, 0ms);
    EXPECT_EQ(t.counts().acks_unexpected, 1U);
    EXPECT_EQ(t.counts().echoes_unexpected, 1U);
}

TEST(sim_latency, percentiles_are_right_to_about_a_percent)
{
    latency times;
    EXPECT_EQ(times.summary(), "no samples");
    for (int us = 1; us <= 10'000; ++us)
        times.add(std::chrono::microseconds{us});
    EXPECT_EQ(times.count(), 10'000U);
    EXPECT_EQ(times.max(), 10ms);
    for (double share : {0.001, 0.1, 0.5, 0.9, 0.99, 0.999}) {
        const double expected = share * 1e7;
        EXPECT_NEAR(static_cast<double>(times.percentile(share).count()), expected, expected * 0.016 + 1);
    }
    EXPECT_EQ(times.percentile(1), 10ms);
}

TEST(sim_latency, takes_any_time)
{
    latency times;
    times.add(-5ns);
    EXPECT_EQ(times.percentile(0.5), 0ns);
    times.add(std::chrono::nanoseconds::max());
    EXPECT_EQ(times.percentile(1), std::chrono::nanoseconds::max());
}

} // namespace sim
