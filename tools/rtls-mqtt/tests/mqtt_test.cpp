#include "decode/hex_bytes.h"
#include "rtls-mqtt/back_off.h"
#include "rtls-mqtt/losses.h"
#include "rtls-mqtt/options.h"
#include "rtls-mqtt/outbox.h"
#include "rtls-mqtt/publications.h"
#include "rtls-mqtt/topics.h"
#include "tap/failure.h"

#include <CLI/CLI.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

namespace mqtt {

using nlohmann::json;
using rtls::recording::tap_message;
using testing::HasSubstr;

// --- Topics

TEST(topics, levels_are_plain_words)
{
    for (const char* good : {"a", "north-2", "A_b.C", "0"})
        EXPECT_TRUE(is_level(good)) << good;
    EXPECT_TRUE(is_level(std::string(64, 'x')));
    for (const char* bad : {"", "+", "#", "a/b", "a+", "#a", " ", "a b", "\xc3\xa4", "a\n", "$SYS"})
        EXPECT_FALSE(is_level(bad)) << bad;
    EXPECT_FALSE(is_level(std::string(65, 'x')));
    EXPECT_FALSE(is_level(std::string("a\0b", 3)));
}

TEST(topics, have_the_node_and_what_it_tells)
{
    const topics names{"north"};
    EXPECT_EQ(names.node("02ab34CD56001a2b", "heartbeat"), "rtls/north/node/02AB34CD56001A2B/heartbeat");
    EXPECT_EQ(names.node("02AB34CD56001A2B", "a/#"), "rtls/north/node/02AB34CD56001A2B/other");
    for (const char* bad :
         {"", "02AB34CD56001A2", "02AB34CD56001A2B0", "02AB34CD56001A2+", "02AB34CD5600/A2B", "#"})
        EXPECT_EQ(names.node(bad, "heartbeat"), std::nullopt) << bad;
}

TEST(topics, take_no_foreign_level_for_an_event)
{
    const topics names{"north"};
    EXPECT_EQ(names.event("node_new"), "rtls/north/event/node_new");
    for (const char* bad : {"", "a/b", "+", "#", "\x01"})
        EXPECT_EQ(names.event(bad), "rtls/north/event/other") << bad;
}

TEST(topics, know_a_command)
{
    const topics names{"north"};
    EXPECT_EQ(names.commands(), "rtls/north/command/+");
    EXPECT_EQ(names.command_in("rtls/north/command/reboot"), "reboot");
    for (const char* bad : {"rtls/north/command/", "rtls/north/command/a/b", "rtls/south/command/reboot",
                            "rtls/north/command/+", "rtls/north/answer/reboot"})
        EXPECT_EQ(names.command_in(bad), std::nullopt) << bad;
}

// --- Publications

static std::vector<uint8_t> bytes(std::string_view hex)
{
    return rtls::decode::bytes_of_hex(hex).value();
}

static constexpr char node[] = "02AB34CD56001A2B";

static tap_message report(const std::string& topic, std::vector<std::vector<uint8_t>> frames)
{
    return {topic, {0, 0, 42, 7, 1'700'000'000'251'500'000}, std::move(frames)};
}

static tap_message heartbeat()
{
    return report(std::string{"report/"} + node, {bytes("6553F10000FA"), bytes("0104073C051101"
                                                                               "02ab34cd56001a2b"
                                                                               "02ab34cd5600b001"
                                                                               "0102A0B0"
                                                                               "000005DC"
                                                                               "FFFFF63C"
                                                                               "00000000"
                                                                               "02ab34cd5600b001")});
}

static tap_message event(const std::string& text)
{
    return {"event", {2, 0, 42, 3, 1'700'000'000'000'000'000}, {{text.begin(), text.end()}}};
}

TEST(publications, a_report_is_the_last_state_of_its_node)
{
    const auto it = publication_of(topics{"north"}, heartbeat());
    ASSERT_TRUE(it);
    EXPECT_EQ(it->topic, "rtls/north/node/02AB34CD56001A2B/heartbeat");
    EXPECT_TRUE(it->is_retained);
    EXPECT_TRUE(it->payload.starts_with(
        R"({"clock":"2023-11-14T22:13:20.251500Z","clock_ns":1700000000251500000,"number":7,"connection":42,"message":{)"))
        << it->payload;
    const json told = json::parse(it->payload);
    EXPECT_EQ(told["message"]["seqNo"], 7);
    EXPECT_EQ(told["message"]["pos_Y"], -2500);
    EXPECT_EQ(told["message"]["long_addr"], "02ab34cd56001a2b");
}

TEST(publications, what_cannot_be_decoded_is_told_and_not_kept)
{
    using frames_type = std::vector<std::vector<uint8_t>>;
    const frames_type too_short{bytes("6553F10000FA"), bytes("0104")};
    const frames_type too_few{bytes("01")};
    for (const auto& frames : {too_short, too_few}) {
        const auto it = publication_of(topics{"north"}, report(std::string{"report/"} + node, frames));
        ASSERT_TRUE(it);
        EXPECT_EQ(it->topic, "rtls/north/node/02AB34CD56001A2B/invalid");
        EXPECT_FALSE(it->is_retained);
        EXPECT_EQ(json::parse(it->payload)["message"]["kind"], "invalid");
    }
}

TEST(publications, a_report_of_nobody_is_none)
{
    for (const char* topic :
         {"report/+", "report/#", "report/", "report/a/b/c", "management", "link/in/id-1"})
        EXPECT_FALSE(publication_of(topics{"north"}, report(topic, heartbeat().payload))) << topic;
}

TEST(publications, an_event_is_passed_on_and_not_kept)
{
    const auto it =
        publication_of(topics{"north"}, event(R"({"event":"node_new","node":"02AB34CD56001A2B"})"));
    ASSERT_TRUE(it);
    EXPECT_EQ(it->topic, "rtls/north/event/node_new");
    EXPECT_FALSE(it->is_retained);
    EXPECT_EQ(
        it->payload,
        R"({"clock":"2023-11-14T22:13:20.000000Z","clock_ns":1700000000000000000,"number":3,"connection":42,"event":{"event":"node_new","node":"02AB34CD56001A2B"}})");
}

TEST(publications, an_event_chooses_no_topic)
{
    EXPECT_EQ(publication_of(topics{"n"}, event(R"({"event":"a/#"})"))->topic, "rtls/n/event/other");
    EXPECT_EQ(publication_of(topics{"n"}, event(R"({"event":7})"))->topic, "rtls/n/event/invalid");
    const auto it = publication_of(topics{"n"}, event("no JSON \x1b\xff"));
    EXPECT_EQ(it->topic, "rtls/n/event/invalid");
    EXPECT_THAT(it->payload, HasSubstr(R"("text":"no JSON \u001b)"));
}

// --- What waits

static publication numbered(int number)
{
    return {"t", std::to_string(number), false};
}

TEST(outbox, gives_up_the_oldest_beyond_its_bound)
{
    outbox waiting{3, 1000};
    for (int i = 0; i < 3; ++i)
        waiting.push(numbered(i));
    EXPECT_EQ(waiting.lost(), 0u);
    waiting.push(numbered(3));
    waiting.push(numbered(4));
    EXPECT_EQ(waiting.lost(), 2u);
    for (int i = 2; i < 5; ++i)
        EXPECT_EQ(waiting.pop().payload, std::to_string(i));
    EXPECT_TRUE(waiting.is_empty());
}

TEST(outbox, bounds_bytes_as_well)
{
    outbox waiting{100, 10};
    waiting.push({"t", "1234", false});
    waiting.push({"t", "5678", false}); // 10 in all
    EXPECT_EQ(waiting.lost(), 0u);
    waiting.push({"t", "x", false});
    EXPECT_EQ(waiting.lost(), 1u);
    EXPECT_EQ(waiting.size(), 2u);
    waiting.push({"t", "0123456789", false}); // 11: it goes, the others stay
    EXPECT_EQ(waiting.lost(), 2u);
    EXPECT_EQ(waiting.pop().payload, "5678");
    EXPECT_EQ(waiting.pop().payload, "x");
    waiting.push({"t", "012345678", false});
    EXPECT_EQ(waiting.lost(), 2u);
}

TEST(back_off, doubles_up_to_its_bound_and_begins_anew)
{
    using seconds = back_off::seconds;
    back_off wait{seconds{1}, seconds{5}};
    for (const double expected : {1.0, 2.0, 4.0, 5.0, 5.0})
        EXPECT_EQ(wait.next(0).count(), expected);
    wait.reset();
    EXPECT_EQ(wait.next(1).count(), 0.5);
    EXPECT_EQ(wait.next(0.5).count(), 1.5);
    back_off steady{seconds{7}, seconds{2}}; // the first is the least that may be the most
    EXPECT_EQ(steady.next(0).count(), 7);
    EXPECT_EQ(steady.next(0).count(), 7);
}

TEST(losses, are_told_by_place)
{
    const losses lost{1, 2, 3, 4};
    EXPECT_EQ(lost.sum(), 10u);
    EXPECT_EQ(json_of(lost, "now"), R"({"tap":1,"not_understood":2,"queue":3,"cut_off":4,"since":"now"})");
}

// --- The command line

namespace {

class secret_file {
public:
    secret_file(const std::string& text, mode_t mode)
        : m_name(testing::TempDir() + "mqtt-login-" + std::to_string(::getpid()))
    {
        std::ofstream{m_name} << text;
        ::chmod(m_name.c_str(), mode);
    }
    ~secret_file() { std::remove(m_name.c_str()); }
    const std::string& name() const { return m_name; }

private:
    std::string m_name;
};

} // namespace

static connector_options given(std::vector<std::string> arguments)
{
    CLI::App app;
    request asked;
    add_options(app, asked);
    arguments.insert(arguments.begin(), {"--tap", "tcp://127.0.0.1:1"});
    std::vector<std::string> from_the_end{arguments.rbegin(), arguments.rend()};
    app.parse(from_the_end);
    return settled(asked);
}

static std::string refusal_of(const std::vector<std::string>& arguments)
{
    try {
        given(arguments);
    } catch (const tap::failure& why) {
        EXPECT_EQ(why.status(), tap::exit_status::usage);
        return why.what();
    } catch (const CLI::ParseError& why) {
        return why.what();
    }
    return "none";
}

TEST(options, ports_and_names_are_the_usual_ones)
{
    const connector_options plain = given({"--gateway", "north"});
    EXPECT_EQ(to_text(plain.to.where), "127.0.0.1:1883");
    EXPECT_EQ(plain.to.client_id, "rtls-mqtt-north");
    EXPECT_EQ(plain.to.qos, 1);
    EXPECT_FALSE(plain.may_command || plain.to.tls.is_wanted || plain.to.who);
    EXPECT_EQ(to_text(given({"--gateway", "a", "--broker", "b.example", "--tls"}).to.where),
              "b.example:8883");
    EXPECT_EQ(to_text(given({"--gateway", "a", "--broker", "b.example", "--ca", "x"}).to.where),
              "b.example:8883");
    const connector_options ordered = given({"--gateway", "a", "--allow-commands", "--terminal", "10.0.0.5"});
    EXPECT_EQ(to_text(ordered.terminal), "10.0.0.5:4000");
    EXPECT_TRUE(ordered.may_command);
}

TEST(options, what_does_not_fit_is_refused)
{
    EXPECT_THAT(refusal_of({"--gateway", "a/b"}), HasSubstr("\"a/b\" is no name for topics"));
    EXPECT_THAT(refusal_of({"--gateway", "#"}), HasSubstr("is no name for topics"));
    EXPECT_THAT(refusal_of({"--broker", "h:0"}), HasSubstr("(--broker)"));
    EXPECT_THAT(refusal_of({"--terminal", "h"}), HasSubstr("--allow-commands"));
    EXPECT_THAT(refusal_of({"--client-key", "x"}), HasSubstr("--client-certificate"));
    EXPECT_THAT(refusal_of({"--qos", "2"}), HasSubstr("--qos"));
    EXPECT_THAT(refusal_of({"--queue", "0"}), HasSubstr("--queue"));
    EXPECT_THAT(refusal_of({"--login", "/nowhere"}), HasSubstr("cannot read /nowhere"));
}

TEST(options, a_login_is_no_others_to_read)
{
    {
        const secret_file file{"ann\nopen sesame\r\n", 0640};
        const connector_options it = given({"--gateway", "a", "--login", file.name()});
        EXPECT_EQ(it.to.who->user, "ann");
        EXPECT_EQ(it.to.who->password, "open sesame");
    }
    for (const mode_t mode : {mode_t{0644}, mode_t{0602}}) {
        const secret_file file{"ann\nopen sesame\n", mode};
        EXPECT_THAT(refusal_of({"--gateway", "a", "--login", file.name()}),
                    HasSubstr("everybody on this host"));
    }
    const secret_file file{"\nopen sesame\n", 0600};
    EXPECT_THAT(refusal_of({"--gateway", "a", "--login", file.name()}),
                HasSubstr("has no user in its first line"));
}

TEST(options, a_password_in_clear_is_known)
{
    broker_options to;
    to.where = {"broker.example", 1883};
    EXPECT_FALSE(tells_password(to));
    to.who = login{"ann", "x"};
    EXPECT_TRUE(tells_password(to));
    to.tls.is_wanted = true;
    EXPECT_FALSE(tells_password(to));
    to.tls.is_wanted = false;
    for (const char* here : {"127.0.0.1", "localhost", "::1"}) {
        to.where.host = here;
        EXPECT_FALSE(tells_password(to)) << here;
    }
}

} // namespace mqtt
