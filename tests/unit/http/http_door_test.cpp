#include "http/http_door.h"

#include "http/answer_pool.h"
#include "support/failing_new.h"
#include "support/free_port.h"
#include "support/log_capture.h"
#include "support/tcp_peer.h"
#include "support/wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <future>
#include <list>
#include <string>

namespace rtls {

using testing::ElementsAre;

namespace {

constexpr char right[] = "GET /page HTTP/1.1\r\nAuthorization: Bearer sesame\r\n\r\n";

// A door that stands open, with one page behind it, for those who know the token. The page waits while it is held.
class open_door {
public:
    explicit open_door(http_times times = {}) : m_door(m_pages, refusals, times)
    {
        http_rules rules;
        rules.address = "127.0.0.1";
        rules.port = m_port;
        EXPECT_TRUE(m_door.open(rules));
    }
    ~open_door() { m_goes_on.set_value(); }
    open_door(const open_door&) = delete;
    open_door& operator=(const open_door&) = delete;

    tcp_peer client(const std::string& says) const
    {
        tcp_peer made{m_port};
        made.send({reinterpret_cast<const uint8_t*>(says.data()), says.size()});
        return made;
    }
    // The status that the client is told.
    static std::string status(tcp_peer& client) { return client.receive(12).substr(9); }

    uint64_t refused(http_refusal why) const { return refusals.counts()[why].value(); }

    http_refusals refusals;
    std::atomic<bool> is_held{false};

private:
    std::promise<void> m_goes_on;
    std::shared_future<void> m_gone_on{m_goes_on.get_future()};
    responder m_pages{{{"/page",
                        [this](const page_request& /*request*/) {
                            if (is_held)
                                m_gone_on.wait();
                            return page{};
                        }}},
                      "sesame"};
    uint16_t m_port = free_port();
    http_door m_door;
};

} // namespace

TEST(http_door, stays_closed_when_memory_is_too_short_for_its_threads)
{
    if (!allocations_can_fail())
        GTEST_SKIP() << "the sanitizer owns the operators";
    log_capture log;
    responder pages{{}, ""};
    http_refusals refusals;
    http_rules rules;
    rules.address = "127.0.0.1";
    rules.port = free_port();
    {
        http_door door{pages, refusals};
        fail_next_allocations(1);
        EXPECT_FALSE(door.open(rules));
        EXPECT_EQ(failures_left(), 0U);
    }
    EXPECT_THAT(log.messages("main"), testing::Contains("http: out of memory!"));
    http_door door{pages, refusals};
    EXPECT_TRUE(door.open(rules));
}

TEST(http_door, counts_each_refusal_and_says_the_first_of_an_episode)
{
    const std::string head = "GET /page HTTP/1.1\r\n";
    const struct {
        std::string request;
        http_refusal why;
        const char* status;
        const char* said;
    } cases[] = {
        {head + "Authorization: Bearer open\r\n\r\n", http_refusal::token, "401",
         "it has not given the token"},
        {"nonsense\r\n\r\n", http_refusal::malformed, "400", "its request is none of HTTP/1.1"},
        {"PUT /page HTTP/1.1\r\n\r\n", http_refusal::method, "405", "nothing but GET and HEAD is served"},
        {head + "Name: " + std::string(9000, 'x'), http_refusal::too_long, "431",
         "the head of its request is too long"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.said);
        log_capture log;
        const open_door door;
        for (int i = 0; i < 10; ++i) {
            tcp_peer client = door.client(c.request);
            EXPECT_EQ(open_door::status(client), c.status);
        }
        EXPECT_EQ(door.refused(c.why), 10U);
        EXPECT_EQ(door.refusals.counts().sum(), 10U);
        EXPECT_THAT(log.messages("main"),
                    ElementsAre("http port: 127.0.0.1 is refused, " + std::string{c.said}));
    }
}

TEST(http_door, refuses_nobody_who_asks_for_what_there_is)
{
    log_capture log;
    const open_door door{{.silence_ms = 1}};
    tcp_peer served = door.client(right);
    EXPECT_EQ(open_door::status(served), "200");
    EXPECT_TRUE(served.is_closed()); // as it is silent, which is no offence
    tcp_peer lost = door.client("GET /nowhere HTTP/1.1\r\nAuthorization: Bearer sesame\r\n\r\n");
    EXPECT_EQ(open_door::status(lost), "404");
    EXPECT_EQ(door.refusals.counts().sum(), 0U);
    EXPECT_THAT(log.messages("main"), ElementsAre());
}

TEST(http_door, counts_who_takes_too_long)
{
    log_capture log;
    const open_door door{{.head_ms = 200}};
    for (const char* begin : {"", "GET /page HT", right}) {
        SCOPED_TRACE(begin);
        tcp_peer client = door.client(begin);
        if (begin == right) {
            EXPECT_EQ(open_door::status(client), "200");
            client.send(std::array<uint8_t, 1>{'G'}); // and no more
        }
        EXPECT_TRUE(client.is_closed());
    }
    EXPECT_TRUE(wait_until([&] { return door.refused(http_refusal::timed_out) == 3; }));
    EXPECT_EQ(door.refusals.counts().sum(), 3U);
    EXPECT_THAT(log.messages("main"), ElementsAre("http port: 127.0.0.1 is refused, it has taken too long"));
}

// The pages are held: two are being made, and so many wait.
TEST(http_door, counts_who_must_go_and_what_cannot_wait)
{
    log_capture log;
    open_door door;
    door.is_held = true;
    std::list<tcp_peer> clients;
    const auto is_taken_in = [&] {
        return clients.size() <= http_door::connections_limit || door.refused(http_refusal::busy) > 0 ||
               door.refused(http_refusal::full) + http_door::connections_limit >= clients.size();
    };
    EXPECT_TRUE(repeat_until([&] { return door.refused(http_refusal::busy) > 0; },
                             [&] {
                                 clients.push_back(door.client(right));
                                 EXPECT_TRUE(wait_until(is_taken_in));
                             }));
    EXPECT_GT(clients.size(), answer_pool::most_waiting);
    EXPECT_GE(door.refused(http_refusal::full), 1U);
    EXPECT_EQ(door.refusals.counts().sum(),
              door.refused(http_refusal::full) + door.refused(http_refusal::busy));
    EXPECT_THAT(
        log.messages("main"),
        testing::UnorderedElementsAre(
            "http port: 127.0.0.1 is refused, all connections are taken, and it has been silent for longest",
            "http port: 127.0.0.1 is refused, too many requests wait"));
}

} // namespace rtls
