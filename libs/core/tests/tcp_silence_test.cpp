#include "core/tcp_silence.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <vector>

namespace rtls {

namespace {

struct sample {
    int64_t at_ms;
    unsigned unanswered;
    int64_t last_ack_ms; // how long ago
};

// One every half second, from the one at `from_ms` until `to_ms`; nothing was acknowledged since `ack_ms`.
std::vector<sample> unanswered(int64_t from_ms, int64_t to_ms, int64_t ack_ms)
{
    std::vector<sample> samples;
    for (int64_t at = from_ms; at <= to_ms; at += silence_judge::sample_every_ms)
        samples.push_back({at, 3, at - ack_ms});
    return samples;
}

std::vector<sample> operator+(std::vector<sample> first, const std::vector<sample>& then)
{
    first.insert(first.end(), then.begin(), then.end());
    return first;
}

} // namespace

TEST(silence_judge, knows_who_has_vanished)
{
    const struct {
        const char* given;
        std::vector<sample> samples;
        bool has_vanished; // by the last of them
    } cases[] = {
        {"nothing to ask for long", {{0, 0, 5'000}, {60'000, 0, 65'000}}, false},
        {"no answer for 12 s", unanswered(500, 12'000, 0), true},
        {"a bit less", unanswered(500, 11'500, 0), false},
        {"silent before, asked for 8 s", unanswered(10'000, 18'000, 0), true},
        {"asked for a bit less", unanswered(10'000, 17'500, 0), false},
        {"one lost probe of a window that has been closed for long",
         {{500, 0, 60'000},
          {1'000, 1, 60'500},
          {2'000, 1, 61'500},
          {4'000, 1, 63'500},
          {6'000, 1, 65'500},
          {8'000, 1, 67'500},
          {9'500, 1, 69'000}},
         false},
        {"an answer in between", unanswered(500, 11'500, 0) + unanswered(12'000, 23'500, 11'600), false},
        {"and silence again", unanswered(500, 11'500, 0) + unanswered(12'000, 24'000, 11'600), true},
        {"a pause of our own", std::vector<sample>{{500, 2, 500}, {20'000, 5, 20'000}, {20'500, 5, 20'500}},
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        silence_judge judge;
        for (size_t i = 0; i < c.samples.size(); ++i) {
            const auto& [at_ms, count, last_ack_ms] = c.samples[i];
            const bool is_last = i + 1 == c.samples.size();
            EXPECT_EQ(judge.has_vanished(count, last_ack_ms, at_ms), is_last && c.has_vanished) << at_ms;
        }
    }
}

TEST(silence_judge, may_be_told_of_a_longer_silence)
{
    silence_judge judge{30'000};
    for (const auto& [at_ms, count, last_ack_ms] : unanswered(500, 30'000, 0))
        EXPECT_EQ(judge.has_vanished(count, last_ack_ms, at_ms), at_ms == 30'000) << at_ms;
}

namespace {

// A TCP connection of this process with itself.
class connection {
public:
    connection()
    {
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* name = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(listener, name, size), 0);
        EXPECT_EQ(listen(listener, 1), 0);
        EXPECT_EQ(getsockname(listener, name, &size), 0);
        EXPECT_EQ(connect(m_client, name, size), 0);
        m_server = accept(listener, nullptr, nullptr);
        close(listener);
    }
    ~connection()
    {
        close(m_client);
        close(m_server);
    }
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    int client() const { return m_client; }
    bool is_open() const
    {
        char byte = 0;
        return recv(m_server, &byte, 1, MSG_DONTWAIT) != 0; // 0: its end
    }

private:
    int m_client = socket(AF_INET, SOCK_STREAM, 0);
    int m_server = -1;
};

} // namespace

TEST(tcp_silence, cuts_the_connection_that_it_is_about)
{
    const connection one;
    tcp_silence silence;
    ASSERT_TRUE(silence.begin(one.client()));
    EXPECT_FALSE(silence.has_vanished(0));
    EXPECT_TRUE(one.is_open());
    EXPECT_TRUE(silence.cut());
    EXPECT_FALSE(one.is_open());
    EXPECT_FALSE(silence.is_about_one());
}

TEST(tcp_silence, cuts_nobody_who_has_got_the_number)
{
    const connection one;
    const connection other;
    tcp_silence silence;
    const int number = dup(one.client());
    ASSERT_TRUE(silence.begin(number));
    ASSERT_EQ(dup2(other.client(), number), number);
    EXPECT_FALSE(silence.has_vanished(0));
    EXPECT_TRUE(silence.cut());
    EXPECT_TRUE(one.is_open());
    EXPECT_TRUE(other.is_open());
    close(number);
}

TEST(tcp_silence, is_about_tcp_only)
{
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    tcp_silence silence;
    EXPECT_FALSE(silence.begin(pair[0]));
    EXPECT_FALSE(silence.begin(-1));
    EXPECT_FALSE(silence.has_vanished(0));
    EXPECT_TRUE(silence.cut());
    close(pair[0]);
    close(pair[1]);
}

} // namespace rtls
