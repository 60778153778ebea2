// The table of figures: its rules, its page in docs, and what is read by it.
#include "metrics/metrics.h"

#include "metrics/process_figures.h"
#include "services.h"
#include "support/log_capture.h"
#include "support/ota_store.h"
#include "support/test_gateway.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <fcntl.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace rtls {

using testing::Contains;
using testing::IsSupersetOf;
using testing::Not;

namespace {

using sample_map = std::map<std::string, double>;

// All samples by name and labels, as in Prometheus' text.
class collected : public metric_sink {
public:
    explicit collected(const void* gateway) { collect(*static_cast<const services*>(gateway), *this); }

    void begin(const metric& of) override
    {
        EXPECT_TRUE(metrics.insert(of.name).second) << of.name << " comes twice";
        m_of = &of;
    }
    void sample(labels of, double value) override
    {
        EXPECT_NE(m_of->type, metric_type::histogram) << m_of->name;
        EXPECT_TRUE(samples.emplace(key(of), value).second) << key(of) << " comes twice";
    }
    void times(labels of, const times_sample& sample) override
    {
        EXPECT_EQ(m_of->type, metric_type::histogram) << m_of->name;
        ASSERT_EQ(sample.buckets.size(), sample.bounds.size() + 1);
        EXPECT_TRUE(std::ranges::is_sorted(sample.bounds));
        EXPECT_TRUE(std::ranges::is_sorted(sample.buckets));
        samples.emplace(key(of), static_cast<double>(sample.buckets.back()));
    }

    std::set<std::string> metrics;
    sample_map samples;

private:
    std::string key(labels of) const
    {
        std::string text;
        for (size_t i = 0; i < metric::most_labels; ++i) {
            const char* name = m_of->labels[i];
            EXPECT_EQ(name != nullptr, i < of.size()) << m_of->name;
            if (name && i < of.size()) {
                EXPECT_STREQ(of[i].name, name);
                text += std::string{text.empty() ? "" : ","} + name + "=" + of[i].value;
            }
        }
        return m_of->name + (text.empty() ? text : '{' + text + '}');
    }

    const metric* m_of = nullptr;
};

const char* text_of(metric_type type)
{
    return type == metric_type::counter ? "counter" : type == metric_type::gauge ? "gauge" : "histogram";
}

// As docs/metrics.md begins a row.
std::string row_of(const metric& m)
{
    std::string names;
    for (const char* name : m.labels)
        if (name)
            names += std::string{names.empty() ? "" : ","} + name;
    return std::string{m.name} + (names.empty() ? "" : '{' + names + '}') + ' ' + text_of(m.type);
}

} // namespace

TEST(metrics_table, names_follow_prometheus)
{
    const std::regex name{"(rtls_gateway|process)(_[a-z]+)+"};
    std::set<std::string> seen;
    for (const metric& m : all_metrics()) {
        const std::string text = m.name;
        EXPECT_TRUE(seen.insert(text).second) << text << " stands twice";
        EXPECT_TRUE(std::regex_match(text, name)) << text;
        EXPECT_EQ(text.ends_with("_total"), m.type == metric_type::counter) << text;
        const std::string unit = m.unit;
        EXPECT_TRUE(unit.empty() || unit == "seconds" || unit == "bytes") << text;
        const std::string family = text.ends_with("_total") ? text.substr(0, text.size() - 6) : text;
        EXPECT_EQ(!unit.empty(), family.ends_with("_seconds") || family.ends_with("_bytes")) << text;
        EXPECT_TRUE(unit.empty() || family.ends_with('_' + unit)) << text;
        EXPECT_TRUE(std::string{m.help}.ends_with('.')) << text;
    }
}

TEST(metrics_table, each_row_is_explained_and_nothing_else)
{
    std::ifstream page{RTLS_SOURCE_DIR "/docs/metrics.md"};
    ASSERT_TRUE(page);
    std::vector<std::string> explained;
    const std::regex row{R"(\| `([a-z_]+(?:\{[a-z,]+\})?)` \| (\w+) \| [^|]+ \| [^|]+ \|)"};
    for (std::string line; std::getline(page, line);) {
        std::smatch parts;
        if (std::regex_match(line, parts, row))
            explained.push_back(parts[1].str() + ' ' + parts[2].str());
    }
    std::vector<std::string> expected;
    for (const metric& m : all_metrics())
        expected.push_back(row_of(m));
    EXPECT_THAT(explained, testing::UnorderedElementsAreArray(expected));
}

TEST(metrics_collect, a_gateway_that_serves_has_samples_of_every_metric)
{
    test_gateway gateway;
    gateway.run_terminal_server();
    gateway.run_win_server();
    const collected now{gateway.handle()};
    for (const metric& m : all_metrics())
        EXPECT_THAT(now.metrics, Contains(m.name));
    EXPECT_EQ(now.samples.at("rtls_gateway_upstream_link_up{link=message_handler}"), 0);
    EXPECT_GE(now.samples.at("rtls_gateway_loop_age_seconds{actor=win}"), 0);
}

TEST(metrics_collect, a_gateway_that_does_not_run_shows_no_loop)
{
    const test_gateway gateway;
    const collected now{gateway.handle()};
    EXPECT_THAT(now.metrics, Not(Contains("rtls_gateway_loop_age_seconds")));
    EXPECT_EQ(now.samples.at("rtls_gateway_bridges"), 0);
}

TEST(metrics_collect, without_services_only_the_process_and_the_log_are_there)
{
    const services nobody;
    const collected now{&nobody};
    EXPECT_THAT(now.metrics, Contains("process_open_fds"));
    EXPECT_THAT(now.metrics, Contains("rtls_gateway_log_lines_queued_total"));
    EXPECT_THAT(now.metrics, Not(Contains("rtls_gateway_bridges")));
    EXPECT_THAT(now.metrics, Not(Contains("rtls_gateway_nodes")));
}

TEST(metrics_collect, what_waits_for_bridges_is_summed_and_the_worst_is_named)
{
    test_gateway gateway;
    const bytes_view bytes{reinterpret_cast<const uint8_t*>("0123456789"), 10};
    WIN_CLIENT_t* one = gateway.add_bridge(bytes.first(5));
    WIN_CLIENT_t* two = gateway.add_bridge(bytes.last(5));
    one->unsent_messages.append(bytes);
    for (int i = 0; i < 3; ++i)
        two->unsent_messages.append(bytes.first(3));
    const collected now{gateway.handle()};
    EXPECT_THAT(now.samples, IsSupersetOf(sample_map{{"rtls_gateway_bridges", 2},
                                                     {"rtls_gateway_bridges_waiting_messages", 4},
                                                     {"rtls_gateway_bridges_waiting_bytes", 19},
                                                     {"rtls_gateway_worst_bridge_waiting_messages", 1},
                                                     {"rtls_gateway_worst_bridge_waiting_bytes", 10}}));
}

TEST(metrics_collect, nodes_are_living_or_expired)
{
    test_gateway gateway;
    const uint8_t macs[2][mac_size] = {{1}, {2}};
    gateway.add_node(macs[0]);
    gateway.add_node(macs[1]);
    auto& nodes = *gateway.nodes();
    {
        const nodes_guard guard{nodes};
        nodes.set_lifetime(*nodes.find_by_mac(macs[0]), 5);
        nodes.set_lifetime(*nodes.find_by_mac(macs[1]), 0);
    }
    const collected now{gateway.handle()};
    EXPECT_THAT(now.samples, IsSupersetOf(sample_map{{"rtls_gateway_nodes{state=living}", 1},
                                                     {"rtls_gateway_nodes{state=expired}", 1}}));
}

// The look at the descriptors needs one itself: 0 would be the opposite of what is true. In a process of its own:
// the limit is that of all threads, and the library's do not stand it.
TEST(metrics_collect, descriptors_that_cannot_be_counted_have_no_sample)
{
    const services nobody;
    const auto has_sample = [&] { return collected{&nobody}.metrics.contains("process_open_fds"); };
    EXPECT_TRUE(has_sample());
    const auto look_without_any = [&] {
        const rlimit none{};
        const bool is_set = setrlimit(RLIMIT_NOFILE, &none) == 0;
        _exit(is_set && !has_sample() ? 0 : 1);
    };
    EXPECT_EXIT(look_without_any(), testing::ExitedWithCode(0), "");
}

TEST(metrics_collect, images_without_a_slot_beside_ordered_ones_are_counted)
{
    const log_capture log;
    const store_ptr store = store_of(1);
    services gateway;
    gateway.ota = static_cast<OTA_t*>(store.get());
    gateway.ota->keep_ordered();
    const std::string ordered = image_of(1);
    ASSERT_EQ(download(store, ordered, crc_of(ordered), 1), 0);
    EXPECT_EQ(collected{&gateway}.samples.at("rtls_gateway_firmware_images_refused_total"), 0);
    EXPECT_EQ(download(store, image_of(2)), -1);
    EXPECT_EQ(collected{&gateway}.samples.at("rtls_gateway_firmware_images_refused_total"), 1);
}

TEST(metrics_collect, counters_come_by_type_and_by_outcome)
{
    test_gateway gateway;
    win_counters& counts = gateway.win_server().counts;
    counts.note(message_type::heartbeat, message_outcome::report);
    counts.note(message_type::heartbeat, message_outcome::duplicate);
    counts.note(message_type::sensor, message_outcome::report);
    counts.note(command_type::rest_ack, command_outcome::repeat);
    counts.bridge_messages_sent.add(2);
    counts.bridge_messages_flushed.add(3);
    const collected now{gateway.handle()};
    EXPECT_THAT(now.samples,
                IsSupersetOf(sample_map{{"rtls_gateway_messages_total{type=heartbeat}", 2},
                                        {"rtls_gateway_messages_total{type=sensor}", 1},
                                        {"rtls_gateway_message_outcomes_total{outcome=report}", 2},
                                        {"rtls_gateway_message_outcomes_total{outcome=duplicate}", 1},
                                        {"rtls_gateway_commands_total{type=rest_ack,outcome=repeat}", 1},
                                        {"rtls_gateway_bridge_frames_total{direction=out}", 5}}));
}

// In a process of its own, which has one thread: the library's may be about to close what tests before this one used.
TEST(process_figures, count_what_is_open)
{
    const auto open_one_more = [] {
        const process_figures before = read_process_figures();
        const int file = open("/dev/null", O_RDONLY | O_CLOEXEC);
        const bool is_counted =
            read_process_figures().open_descriptors.value() == before.open_descriptors.value() + 1;
        close(file);
        _exit(is_counted ? 0 : 1);
    };
    EXPECT_EXIT(open_one_more(), testing::ExitedWithCode(0), "");
}

TEST(process_figures, know_this_process)
{
    const process_figures before = read_process_figures();
    EXPECT_GT(before.most_descriptors, before.open_descriptors.value());
    EXPECT_GT(before.resident_bytes, 1'000'000U);
    EXPECT_GE(before.virtual_bytes, before.resident_bytes);
    EXPECT_GE(read_process_figures().processor_seconds, before.processor_seconds);
    const auto now = static_cast<double>(time(nullptr));
    EXPECT_GT(before.start_seconds, now - 3600);
    EXPECT_LE(before.start_seconds, now + 1);
}

} // namespace rtls
