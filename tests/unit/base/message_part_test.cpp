#include "base/message_part.h"

#include "support/hex_bytes.h"
#include "support/sanitizers.h"
#include "support/sock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>

namespace rtls {

namespace {

bytes_t content_of(message_part& part)
{
    return {part.bytes().begin(), part.bytes().end()};
}

class message_part_test : public testing::Test {
protected:
    const std::string m_endpoint = new_endpoint();
    zsock_ptr m_pull{zsock_new_pull(("@" + m_endpoint).c_str())};
    zsock_ptr m_push{zsock_new_push((">" + m_endpoint).c_str())};
    void* m_in = zsock_resolve(m_pull.get());
    void* m_out = zsock_resolve(m_push.get());
};

} // namespace

TEST(message_part, a_small_content_stands_in_the_part_itself)
{
    const auto stands_within = [](message_part& part) {
        const auto begin = reinterpret_cast<uintptr_t>(&part);
        const auto data = reinterpret_cast<uintptr_t>(part.data());
        return data >= begin && data < begin + sizeof part;
    };
    message_part small{inline_part_size};
    message_part larger{inline_part_size + 1};
    EXPECT_TRUE(stands_within(small));
    EXPECT_FALSE(stands_within(larger));
}

TEST(message_part, is_empty_or_a_copy_or_has_room)
{
    message_part empty;
    EXPECT_TRUE(empty.is_made());
    EXPECT_EQ(empty.size(), 0U);
    bytes_t content = ramp(3000);
    message_part copy{bytes_view{content}};
    ASSERT_TRUE(copy.is_made());
    content[0] = 0xEE;
    EXPECT_EQ(content_of(copy), ramp(3000));
    message_part room{size_t{70'000}};
    ASSERT_TRUE(room.is_made());
    EXPECT_EQ(room.size(), 70'000U);
}

TEST(message_part, that_memory_is_too_short_for_is_not_made)
{
    if (!malloc_can_refuse)
        GTEST_SKIP() << "the sanitizer ends the program instead of refusing the memory";
    const message_part part{SIZE_MAX / 8};
    EXPECT_FALSE(part.is_made());
}

TEST_F(message_part_test, goes_out_and_comes_in_part_by_part)
{
    message_part first{bytes_view{hex("01 02")}};
    message_part second{bytes_view{hex("03")}};
    ASSERT_TRUE(first.send(m_out, true));
    EXPECT_EQ(first.size(), 0U) << "the content is handed over";
    ASSERT_TRUE(second.send(m_out));
    message_part received;
    ASSERT_TRUE(received.receive(m_in));
    EXPECT_EQ(content_of(received), hex("01 02"));
    EXPECT_EQ(zsock_rcvmore(m_pull.get()), 1);
    ASSERT_TRUE(received.receive(m_in));
    EXPECT_EQ(content_of(received), hex("03"));
    EXPECT_EQ(zsock_rcvmore(m_pull.get()), 0);
}

TEST_F(message_part_test, waits_neither_for_something_to_receive_nor_for_room)
{
    message_part received;
    EXPECT_FALSE(received.receive(m_in));
    EXPECT_EQ(errno, EAGAIN);

    const zsock_ptr unconnected{zsock_new(ZMQ_PUSH)};
    message_part part{bytes_view{hex("01 02")}};
    EXPECT_FALSE(part.send(zsock_resolve(unconnected.get())));
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(content_of(part), hex("01 02")) << "what is not taken stays";
    zsock_set_sndtimeo(unconnected.get(), 10);
    const int64_t start = zclock_mono();
    EXPECT_FALSE(part.send(zsock_resolve(unconnected.get()), false, true));
    EXPECT_GE(zclock_mono() - start, 9) << "told to wait, it does";
}

TEST_F(message_part_test, a_copy_is_sent_as_a_part_is)
{
    const bytes_t content = ramp(inline_part_size);
    ASSERT_TRUE(send_copy(m_out, content, true));
    ASSERT_TRUE(send_copy(m_out, {}));
    message_part part;
    ASSERT_TRUE(part.receive(m_in, true));
    EXPECT_EQ(content_of(part), content);
    EXPECT_TRUE(zsock_rcvmore(m_pull.get()));
    ASSERT_TRUE(part.receive(m_in));
    EXPECT_EQ(part.size(), 0U);
    EXPECT_FALSE(zsock_rcvmore(m_pull.get()));
}

TEST_F(message_part_test, a_copy_that_finds_no_room_is_refused_at_once)
{
    const zsock_ptr nobody{zsock_new(ZMQ_PUSH)};
    EXPECT_FALSE(send_copy(zsock_resolve(nobody.get()), ramp(3)));
    EXPECT_EQ(errno, EAGAIN);
}

} // namespace rtls
