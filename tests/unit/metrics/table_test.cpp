// The table of figures: its rules, its page in docs, and what is read by it.
#include "metrics/metrics.h"

#include "base/prefix_list.h"
#include "firmware/download_pool.h"
#include "firmware/image_download.h"
#include "link/win_server_private.h"
#include "metrics/process_figures.h"
#include "services.h"
#include "support/log_capture.h"
#include "support/ota_store.h"
#include "support/temp_file.h"
#include "support/test_gateway.h"
#include "terminal/terminal_server_private.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <fcntl.h>

#include <climits>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <utility>
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
        sums.emplace(key(of), sample.sum);
        for (size_t i = 0; i < sample.bounds.size(); ++i)
            up_to.emplace(std::pair{key(of), sample.bounds[i]}, sample.buckets[i]);
    }

    std::set<std::string> metrics;
    sample_map samples;                                       // of histograms: how many
    sample_map sums;                                          // of histograms, in seconds
    std::map<std::pair<std::string, double>, uint64_t> up_to; // of histograms: how many up to a bound

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

gateway_config with_tap(const temp_file& place)
{
    return gateway_config{}.set("tap/address", std::string{"ipc://"} + place.path());
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
    const temp_file tap{"tap"};
    test_gateway gateway{with_tap(tap)};
    gateway.run_terminal_server();
    gateway.run_win_server();
    const collected now{gateway.handle()};
    for (const metric& m : all_metrics())
        EXPECT_THAT(now.metrics, Contains(m.name));
    EXPECT_EQ(now.samples.at("rtls_gateway_upstream_link_up{link=message_handler}"), 0);
    EXPECT_GE(now.samples.at("rtls_gateway_loop_age_seconds{actor=win}"), 0);
}

TEST(metrics_collect, without_a_tap_there_are_no_samples_of_it)
{
    const test_gateway gateway;
    const collected now{gateway.handle()};
    EXPECT_THAT(now.metrics, testing::Not(Contains(testing::StartsWith("rtls_gateway_tap_"))));
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

TEST(metrics_collect, downloads_that_find_no_place_to_wait_are_counted)
{
    log_capture log;
    std::promise<void> end;
    const std::shared_future<void> until = end.get_future().share();
    test_gateway gateway;
    download_pool& pool = *static_cast<services*>(gateway.handle())->downloads;
    size_t taken = 0;
    while (pool.order([until] { until.wait(); }, "a lane"))
        ++taken;
    const collected now{gateway.handle()};
    EXPECT_GE(taken, download_pool::most_waiting);
    EXPECT_EQ(now.samples.at("rtls_gateway_downloads_total{outcome=queue_full}"), 1);
    EXPECT_EQ(now.samples.at("rtls_gateway_downloads_total{outcome=not_taken}"), 0);
    end.set_value();
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

// --- each figure by its name

namespace {

// Counted by the actors and by nobody else while they do not run.
template <typename Counters>
Counters& writable(const Counters& counts)
{
    return const_cast<Counters&>(counts); // NOLINT(cppcoreguidelines-pro-type-const-cast)
}

// A counter, and the samples that it moves.
struct wiring {
    std::function<void()> count;
    std::vector<std::string> moves;
};

// One for each value of an enumeration: the samples of `name`, whose labels are written out here, in its order.
template <typename Kind>
void add_kinds(std::vector<wiring>& all, counters<Kind>& counts, const std::string& name,
               const std::vector<std::string>& labels)
{
    ASSERT_EQ(labels.size(), counters<Kind>::size) << name;
    for (size_t i = 0; i < labels.size(); ++i)
        all.push_back({[&counts, i] { counts[static_cast<Kind>(i)].add(); },
                       {"rtls_gateway_" + name + "{" + labels[i] + "}"}});
}

void add_one(std::vector<wiring>& all, counter& counts, const std::string& name)
{
    all.push_back({[&counts] { counts.add(); }, {"rtls_gateway_" + name}});
}

const std::vector<std::string> message_types = {
    "none",      "ping",          "panid_req",          "announce_root",
    "heartbeat", "node_announce", "generic_server_req", "sensor",
    "wrap_ts",   "nwk_data_ind",  "trf2srv_via_client", "other"};
const std::vector<std::string> message_outcomes = {
    "report",       "line",      "answered",      "unknown_type", "too_short",    "wrong_size",
    "unknown_node", "duplicate", "registry_full", "foreign_node", "out_of_memory"};
const std::vector<std::string> command_types = {
    "undecodable",        "ota_upload_fw",       "nwk_data_req", "conf_node_req",
    "fw_image_avail_ind", "generic_req",         "rest_ack",     "sensor_req",
    "conf_sensor_req",    "tdoa_sched_conf_req", "other",        "of_operator"};
const std::vector<std::string> command_outcomes = {
    "sent",   "cached",    "lost",         "no_bridge", "node_not_found",
    "repeat", "malformed", "unknown_type", "ordered",   "out_of_memory"};

void add_messages(std::vector<wiring>& all, win_counters& counts)
{
    ASSERT_EQ(message_types.size(), counts.messages.size());
    ASSERT_EQ(message_outcomes.size(), counters<message_outcome>::size);
    for (size_t type = 0; type < message_types.size(); ++type)
        for (size_t outcome = 0; outcome < message_outcomes.size(); ++outcome)
            all.push_back({[&counts, type, outcome] {
                               counts.note(static_cast<message_type>(type),
                                           static_cast<message_outcome>(outcome));
                           },
                           {"rtls_gateway_message_outcomes_total{outcome=" + message_outcomes[outcome] + "}",
                            "rtls_gateway_messages_total{type=" + message_types[type] + "}"}});
}

void add_commands(std::vector<wiring>& all, win_counters& counts)
{
    ASSERT_EQ(command_types.size(), counts.commands.size());
    ASSERT_EQ(command_outcomes.size(), counters<command_outcome>::size);
    for (size_t type = 0; type < command_types.size(); ++type)
        for (size_t outcome = 0; outcome < command_outcomes.size(); ++outcome)
            all.push_back({[&counts, type, outcome] {
                               counts.note(static_cast<command_type>(type),
                                           static_cast<command_outcome>(outcome));
                           },
                           {"rtls_gateway_commands_total{type=" + command_types[type] +
                            ",outcome=" + command_outcomes[outcome] + "}"}});
}

void add_link(std::vector<wiring>& all, win_counters& counts)
{
    add_kinds(
        all, counts.events, "bridge_events_total",
        {"event=connected", "event=data", "event=disconnected", "event=data_of_nobody", "event=late_end"});
    add_kinds(all, counts.decoder.lost, "bridge_frames_lost_total",
              {"reason=restarted", "reason=empty", "reason=too_long", "reason=out_of_memory",
               "reason=given_up", "reason=unfinished"});
    add_kinds(all, counts.bridges_closed, "bridges_closed_total", {"cause=peer", "cause=unwanted"});
    add_kinds(all, counts.bridge_messages_lost, "bridge_messages_lost_total",
              {"cause=queue_full", "cause=out_of_memory", "cause=given_up", "cause=bridge_closed"});
    add_one(all, counts.decoder.noise, "bridge_noise_bytes_total");
    add_one(all, counts.bytes_in, "bridge_bytes_total{direction=in}");
    add_one(all, counts.bytes_out, "bridge_bytes_total{direction=out}");
    add_one(all, counts.frames_in, "bridge_frames_total{direction=in}");
    add_one(all, counts.acknowledgements, "acknowledgements_total");
    add_one(all, counts.bridges_accepted, "bridges_accepted_total");
    add_one(all, counts.bridges_not_made, "bridges_refused_total{reason=out_of_memory}");
    add_one(all, counts.bridge_messages_cached, "bridge_messages_cached_total");
    const std::string frames = "rtls_gateway_bridge_frames_total{direction=out}";
    all.push_back(
        {[&] { counts.bridge_messages_sent.add(); }, {frames, "rtls_gateway_bridge_messages_sent_total"}});
    all.push_back({[&] { counts.bridge_messages_flushed.add(); },
                   {frames, "rtls_gateway_bridge_messages_flushed_total"}});
}

void add_others(std::vector<wiring>& all, win_counters& counts)
{
    add_kinds(all, counts.page_requests, "page_requests_total",
              {"outcome=served", "outcome=not_found", "outcome=refused"});
    add_kinds(all, counts.pages_seen, "pages_intercepted_total", {"outcome=stored", "outcome=refused"});
    add_kinds(all, counts.discovery, "discovery_requests_total",
              {"outcome=answered", "outcome=not_sent", "outcome=malformed", "outcome=own", "outcome=flood"});
    auto& transfers = writable(image_download_counters());
    const char* const outcomes[] = {"complete", "failed", "timed_out", "stopped", "forbidden"};
    ASSERT_EQ(std::size(outcomes), transfers.transfers.size());
    for (size_t i = 0; i < transfers.transfers.size(); ++i)
        all.push_back({[&transfers, i] { transfers.transfers[i].add(); },
                       {std::string{"rtls_gateway_downloads_total{outcome="} + outcomes[i] + "}"}});
    all.push_back({[&] { transfers.bytes.add(); }, {"rtls_gateway_download_bytes_total"}});
    all.push_back({[&] { transfers.microseconds.add(); }, {"rtls_gateway_download_seconds_total"}});
}

void add_queue(std::vector<wiring>& all, const upstream_queue& queue, const std::string& name)
{
    upstream_counters& counts = writable(queue.counts());
    const std::string of = "queue=" + name;
    add_kinds(all, counts.lost, "reports_lost_total",
              {of + ",cause=overflow", of + ",cause=waited_in_vain", of + ",cause=error",
               of + ",cause=out_of_memory"});
    const std::string handed_over = "rtls_gateway_reports_handed_over_total{" + of + "}";
    all.push_back({[&counts] { counts.at_once.add(); }, {handed_over}});
    all.push_back({[&counts] { counts.after_wait.add(1); },
                   {"rtls_gateway_report_hand_over_seconds", handed_over,
                    "rtls_gateway_reports_waited_total{" + of + "}"}});
    all.push_back({[&counts] { counts.waiting.set(3); }, {"rtls_gateway_reports_waiting{" + of + "}"}});
}

void add_terminal(std::vector<wiring>& all, terminal_counters& counts)
{
    add_one(all, counts.chunks, "operator_events_total");
    add_one(all, counts.bytes_in, "operator_bytes_total");
    add_one(all, counts.lines_taken, "debug_lines_total");
    ASSERT_EQ(counters<line_outcome>::size, 3U); // which two metrics share
    add_one(all, counts.lines[line_outcome::streamed], "debug_lines_delivered_total{outcome=streamed}");
    add_one(all, counts.lines[line_outcome::filtered], "debug_lines_delivered_total{outcome=filtered}");
    add_one(all, counts.lines[line_outcome::lost], "debug_lines_lost_total{cause=operator}");
    add_one(all, counts.operators_not_made, "operators_refused_total{reason=out_of_memory}");
    add_one(all, counts.requests_lost, "commands_total{type=of_operator,outcome=lost}");
    all.push_back({[&] { counts.operators_accepted.add(2); },
                   {"rtls_gateway_operators", "rtls_gateway_operators_accepted_total"}});
    all.push_back({[&] { counts.operators_gone.add(); }, {"rtls_gateway_operators"}});
}

void add_tap(std::vector<wiring>& all, tap_counters& counts)
{
    const std::vector<std::string> classes = {"class=report",  "class=management", "class=command",
                                              "class=link_in", "class=link_out",   "class=event"};
    add_kinds(all, counts.published, "tap_messages_total", classes);
    add_kinds(all, counts.overflows, "tap_overflows_total", classes);
    add_kinds(all, counts.lost, "tap_lost_total", classes);
    add_one(all, counts.refused, "tap_refused_total");
    add_one(all, counts.cut, "tap_cut_total");
    all.push_back({[&counts] { counts.topics.set(2); }, {"rtls_gateway_tap_topics"}});
}

std::vector<wiring> all_wirings(services& gateway)
{
    std::vector<wiring> all;
    win_counters& counts = gateway.win_server->counts;
    add_messages(all, counts);
    add_commands(all, counts);
    add_link(all, counts);
    add_others(all, counts);
    all.push_back({[&counts] { counts.hand_over.add(1); }, {"rtls_gateway_report_hand_over_seconds"}});
    add_queue(all, gateway.win_server->to_handler, "message_handler");
    add_queue(all, gateway.win_server->to_proxy_input, "proxy_input");
    add_terminal(all, gateway.terminal_server->counts);
    add_tap(all, writable(gateway.win_server->tap.counts()));
    add_kinds(all, writable(gateway.http.counts()), "http_refused_total",
              {"reason=descriptors", "reason=full", "reason=busy", "reason=malformed", "reason=method",
               "reason=too_long", "reason=token", "reason=timed_out", "reason=out_of_memory"});
    return all;
}

// The samples of which the value is another one now, but for those that move by themselves.
std::vector<std::string> moved(const sample_map& before, const sample_map& now)
{
    std::vector<std::string> names;
    for (const auto& [name, value] : now)
        if (!name.starts_with("process_") && !name.starts_with("rtls_gateway_log_") &&
            value != before.at(name))
            names.push_back(name);
    return names;
}

} // namespace

TEST(metrics_collect, each_counter_moves_its_own_sample_and_no_other)
{
    const temp_file tap{"tap"};
    test_gateway gateway{with_tap(tap)};
    auto& handed_out = *static_cast<services*>(gateway.handle());
    sample_map before = collected{gateway.handle()}.samples;
    for (const wiring& one : all_wirings(handed_out)) {
        one.count();
        const sample_map now = collected{gateway.handle()}.samples;
        EXPECT_THAT(moved(before, now), testing::UnorderedElementsAreArray(one.moves));
        before = now;
    }
}

TEST(metrics_collect, refusals_at_the_doors_come_by_their_reason)
{
    const log_capture log;
    test_gateway gateway;
    auto& handed_out = *static_cast<services*>(gateway.handle());
    const in_addr stranger{htonl(0xC0000201)};
    const auto refuse_all = [&](door& entrance, full_house& house) {
        entrance.rules.networks = parse_networks("10.0.0.0/8");
        EXPECT_FALSE(entrance.admits(stranger, 0, 0, 1));
        entrance.rules = {};
        entrance.rules.most = 5;
        for (int i = 0; i < 2; ++i)
            EXPECT_FALSE(entrance.admits(stranger, 5, 0, 1));
        entrance.rules = {};
        entrance.rules.most_of_one_address = 2;
        for (int i = 0; i < 3; ++i)
            EXPECT_FALSE(entrance.admits(stranger, 2, 2, 1));
        for (int i = 0; i < 4; ++i)
            EXPECT_TRUE(house.refuses(INT_MAX - 1, 1));
    };
    refuse_all(handed_out.win_server->win_door, handed_out.win_server->house);
    refuse_all(handed_out.terminal_server->entrance, handed_out.terminal_server->house);
    const collected now{gateway.handle()};
    for (const std::string who : {"bridges", "operators"})
        EXPECT_THAT(now.samples, IsSupersetOf(sample_map{
                                     {"rtls_gateway_" + who + "_refused_total{reason=network}", 1},
                                     {"rtls_gateway_" + who + "_refused_total{reason=full}", 2},
                                     {"rtls_gateway_" + who + "_refused_total{reason=address}", 3},
                                     {"rtls_gateway_" + who + "_refused_total{reason=descriptors}", 4}}));
}

TEST(metrics_collect, times_are_in_seconds_and_fall_into_their_ranges)
{
    test_gateway gateway;
    auto& handed_out = *static_cast<services*>(gateway.handle());
    handed_out.win_server->counts.hand_over.add(2'000'000, 3);
    writable(handed_out.win_server->to_handler.counts()).after_wait.add(50'000);
    writable(handed_out.win_server->to_proxy_input.counts()).after_wait.add(50);
    writable(image_download_counters()).microseconds.add(1'500'000);
    const sample_map before = collected{gateway.handle()}.samples;
    writable(image_download_counters()).microseconds.add(2'500'000);
    const collected now{gateway.handle()};
    const std::string name = "rtls_gateway_report_hand_over_seconds";
    EXPECT_NEAR(now.sums.at(name), 6.05005, 1e-9);
    EXPECT_EQ(now.samples.at(name), 5);
    const auto up_to = [&](double bound) { return now.up_to.at({name, bound}); };
    EXPECT_EQ(up_to(0.00005), 1U);
    EXPECT_EQ(up_to(0.025), 1U);
    EXPECT_EQ(up_to(0.05), 2U);
    EXPECT_EQ(up_to(1), 2U);
    EXPECT_EQ(up_to(5), 5U);
    const std::string seconds = "rtls_gateway_download_seconds_total";
    EXPECT_NEAR(now.samples.at(seconds) - before.at(seconds), 2.5, 1e-9);
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
