#include "tap/tap_place.h"

#include "base/unique_fd.h"
#include "support/temp_file.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>
#include <type_traits>

namespace rtls {

namespace {

// Listens, and has one connection.
struct listener {
    template <typename Address>
    listener(int family, Address place)
        : listening{socket(family, SOCK_STREAM, 0)}, client{socket(family, SOCK_STREAM, 0)}
    {
        EXPECT_EQ(bind(listening.get(), reinterpret_cast<sockaddr*>(&place), sizeof place), 0);
        EXPECT_EQ(listen(listening.get(), 1), 0);
        socklen_t size = sizeof place;
        EXPECT_EQ(getsockname(listening.get(), reinterpret_cast<sockaddr*>(&place), &size), 0);
        EXPECT_EQ(connect(client.get(), reinterpret_cast<sockaddr*>(&place), size), 0);
        accepted = unique_fd{accept(listening.get(), nullptr, nullptr)};
        if constexpr (std::is_same_v<Address, sockaddr_in>)
            endpoint = "tcp://127.0.0.1:" + std::to_string(ntohs(place.sin_port));
    }
    bool is_cut() const
    {
        char byte = 0;
        return recv(client.get(), &byte, 1, MSG_DONTWAIT) == 0;
    }

    unique_fd listening;
    unique_fd client;
    unique_fd accepted;
    std::string endpoint;
};

listener by_tcp()
{
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return {AF_INET, place};
}

listener at(const temp_file& file)
{
    sockaddr_un place{};
    place.sun_family = AF_UNIX;
    std::string{file.path()}.copy(place.sun_path, sizeof place.sun_path - 1);
    return {AF_UNIX, place};
}

} // namespace

TEST(tap_place, has_the_connections_that_were_made_to_it_alone)
{
    const temp_file file{"place"};
    const temp_file other_file{"other"};
    const listener tcp = by_tcp();
    const listener other_tcp = by_tcp();
    const listener local = at(file);
    const listener other_local = at(other_file);
    tap_place place;
    EXPECT_FALSE(place.has(tcp.accepted.get()));
    place.set(tcp.endpoint);
    EXPECT_TRUE(place.has(tcp.accepted.get()));
    for (const unique_fd* fd : {&tcp.client, &tcp.listening, &other_tcp.accepted, &local.accepted})
        EXPECT_FALSE(place.has(fd->get()));
    place.set(std::string{"ipc://"} + file.path());
    EXPECT_TRUE(place.has(local.accepted.get()));
    for (const unique_fd* fd : {&local.client, &local.listening, &other_local.accepted, &tcp.accepted})
        EXPECT_FALSE(place.has(fd->get()));
    EXPECT_FALSE(place.has(-1));
}

TEST(tap_place, cuts_a_connection_once_until_all_is_read)
{
    const listener tcp = by_tcp();
    const listener other = by_tcp();
    tap_place place;
    place.set(tcp.endpoint);
    EXPECT_FALSE(place.cut(other.accepted.get()));
    EXPECT_FALSE(place.cut(-1));
    EXPECT_FALSE(tcp.is_cut());
    EXPECT_TRUE(place.cut(tcp.accepted.get()));
    EXPECT_TRUE(tcp.is_cut());
    EXPECT_FALSE(other.is_cut());
    EXPECT_FALSE(place.cut(tcp.accepted.get()));
    place.look_is_over(true);
    EXPECT_TRUE(place.cut(tcp.accepted.get())) << "the number may be another connection's";
}

TEST(tap_place, cuts_again_after_a_while_although_more_is_to_be_read)
{
    const listener tcp = by_tcp();
    tap_place place;
    place.set(tcp.endpoint);
    EXPECT_TRUE(place.cut(tcp.accepted.get()));
    for (int i = 0; i < tap_place::looks_of_rest; ++i) {
        place.look_is_over(false);
        EXPECT_FALSE(place.cut(tcp.accepted.get()));
    }
    place.look_is_over(false);
    EXPECT_TRUE(place.cut(tcp.accepted.get()));
}

TEST(tap_place, bears_so_many_messages_of_a_connection_until_all_is_read)
{
    tap_place place;
    const auto all_but_one_more = [&] {
        for (size_t i = 0; i < tap_place::most_at_once; ++i)
            ASSERT_TRUE(place.bears(7)) << i;
        EXPECT_TRUE(place.bears(8));
    };
    all_but_one_more();
    place.look_is_over(false);
    EXPECT_FALSE(place.bears(7));
    place.look_is_over(true);
    all_but_one_more();
    for (size_t i = 0; i <= tap_place::most_at_once; ++i)
        ASSERT_TRUE(place.bears(-1)) << "nobody to be cut off";
}

} // namespace rtls
