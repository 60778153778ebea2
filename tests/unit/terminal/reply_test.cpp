#include "terminal/reply.h"

#include "base/czmq_ptr.h"
#include "support/sock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace rtls {

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// A socket that takes everything stands for the terminal port: identity and text arrive as they were sent.
class reply_test : public testing::Test {
protected:
    reply_test() { m_client.id.reset(zframe_new("abcde", 5)); }

    // What left by this socket until now. Each part promises another one: a last one lets them go.
    std::vector<std::string> sent_by(const zsock_ptr& push)
    {
        constexpr char last[] = "(the end)";
        zstr_send(push.get(), last);
        std::vector<std::string> frames;
        zsock_set_rcvtimeo(m_pull.get(), 5000);
        while (const zframe_ptr frame{zframe_recv(m_pull.get())}) {
            std::string text{reinterpret_cast<const char*>(zframe_data(frame.get())),
                             zframe_size(frame.get())};
            if (text == last)
                return frames;
            frames.push_back(std::move(text));
        }
        ADD_FAILURE() << "the end does not come";
        return frames;
    }
    std::vector<std::string> sent() { return sent_by(m_push); }

    const std::string m_endpoint = new_endpoint();
    zsock_ptr m_pull{zsock_new_pull(("@" + m_endpoint).c_str())};
    zsock_ptr m_push{zsock_new_push((">" + m_endpoint).c_str())};
    TERMINAL_CLIENT_t m_client;
};

} // namespace

TEST_F(reply_test, is_an_identity_and_exactly_one_text)
{
    {
        terminal_reply reply{m_client, m_push.get()};
        EXPECT_TRUE(reply);
        reply.send(std::string{"one\n"});
        EXPECT_FALSE(reply) << "nothing is left to send";
        reply.send("two\n");
    }
    EXPECT_THAT(sent(), ElementsAre("abcde", "one\n"));
    EXPECT_EQ(zframe_size(m_client.id.get()), 5U) << "the frame stays the caller's";
}

TEST_F(reply_test, that_got_no_text_becomes_an_empty_line)
{
    {
        const terminal_reply reply{m_client, m_push.get()};
    }
    EXPECT_THAT(sent(), ElementsAre("abcde", "\n"));
}

TEST_F(reply_test, of_nothing_closes_the_connection)
{
    EXPECT_TRUE(terminal_send(m_client, m_push.get(), ""));
    EXPECT_THAT(sent(), ElementsAre("abcde", ""));
}

TEST_F(reply_test, to_an_identity_that_is_not_accepted_has_no_text)
{
    TERMINAL_CLIENT_t nobody;
    EXPECT_FALSE(terminal_send(nobody, m_push.get(), "text"));
    const zsock_ptr unconnected{zsock_new(ZMQ_PUSH)};
    terminal_reply reply{m_client, unconnected.get()};
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(reply);
    EXPECT_EQ(zsock_connect(unconnected.get(), "%s", m_endpoint.c_str()), 0);
    reply.send("late");
    EXPECT_THAT(sent_by(unconnected), IsEmpty());
    EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(reply_test, waits_for_room_once_after_a_frame_that_was_taken)
{
    EXPECT_TRUE(terminal_send(m_client, m_push.get(), "taken"));
    const zsock_ptr full{zsock_new(ZMQ_PUSH)}; // nobody is there to take anything
    constexpr int time_out = 50;
    zsock_set_sndtimeo(full.get(), time_out);
    const auto milliseconds_of_a_try = [&] {
        const int64_t start = zclock_mono();
        EXPECT_FALSE(terminal_send(m_client, full.get(), "text"));
        return zclock_mono() - start;
    };
    EXPECT_GE(milliseconds_of_a_try(), time_out - 1);
    zsock_set_sndtimeo(full.get(), 10'000);
    EXPECT_LT(milliseconds_of_a_try(), 5'000) << "not again";
    EXPECT_TRUE(terminal_send(m_client, m_push.get(), "taken"));
    zsock_set_sndtimeo(full.get(), time_out);
    EXPECT_GE(milliseconds_of_a_try(), time_out - 1);
}

TEST(text_format, has_any_length)
{
    EXPECT_EQ(text_format("%s-%04X", "a", 0x1F), "a-001F");
    EXPECT_EQ(text_format("%s", ""), "");
    for (const size_t length : {511U, 512U, 513U, 5000U}) {
        const std::string text(length, 'x');
        EXPECT_EQ(text_format("%s", text.c_str()), text);
    }
}

} // namespace rtls
