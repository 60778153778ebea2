#include "rtls-sim/image.h"

#include "support/temp_file.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

namespace sim {

static bytes text_bytes(const std::string& text)
{
    return {text.begin(), text.end()};
}

TEST(sim_image, tags_say_what_was_asked_for)
{
    const image_traits asked{500, 7, 9, 8, 0xDEADBEEF, 256, 77};
    const bytes image = make_image(asked);
    EXPECT_EQ(image.size(), 500U);
    const bytes board = {'@', 'B', 'o', 'a', 'r', 'd', 'V', 'e', 'r', 0, 9, 8};
    const bytes firmware = {'@', 'F',  'i',  'r',  'm',  'w', 'a', 'r', 'e',
                            0,   0xDE, 0xAD, 0xBE, 0xEF, 1,   0,   0,   77};
    EXPECT_NE(std::search(image.begin(), image.end(), board.begin(), board.end()), image.end());
    EXPECT_NE(std::search(image.begin(), image.end(), firmware.begin(), firmware.end()), image.end());
    EXPECT_EQ(std::ranges::count(image, '@'), 2);
    const auto read = read_traits(image);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->size, asked.size);
    EXPECT_EQ(read->board_version, 9);
    EXPECT_EQ(read->board_revision, 8);
    EXPECT_EQ(read->git_id, 0xDEADBEEFU);
    EXPECT_EQ(read->page_size, 256);
    EXPECT_EQ(read->maximum_pages, 77);
}

TEST(sim_image, content_follows_from_the_seed)
{
    image_traits traits;
    const bytes first = make_image(traits);
    EXPECT_EQ(first, make_image(traits));
    traits.seed = 2;
    EXPECT_NE(first, make_image(traits));
    traits.size = 1;
    EXPECT_EQ(make_image(traits).size(), smallest_image);
}

TEST(sim_image, an_image_without_both_tags_has_no_traits)
{
    EXPECT_FALSE(read_traits({}));
    EXPECT_FALSE(read_traits(text_bytes("@BoardVer@Firmware")));
    bytes image = make_image({});
    image.resize(60); // ends before the second tag
    EXPECT_FALSE(read_traits(image));
    image = make_image({});
    image.resize(77 + 17); // ends within what follows it
    EXPECT_FALSE(read_traits(image));
}

TEST(sim_image, the_name_carries_the_version)
{
    EXPECT_EQ(image_name(0x0102A0FF), "obn-node.0102A0FF.bin");
    EXPECT_EQ(image_name(0xF), "obn-node.0000000F.bin");
}

// What a server on this machine answers to a request.
static std::string answer_to(uint16_t port, const std::string& request)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    std::string answer;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
        char buffer[4096];
        for (ssize_t got = 0; (got = recv(fd, buffer, sizeof buffer, 0)) > 0;)
            answer.append(buffer, static_cast<size_t>(got));
    }
    close(fd);
    return answer;
}

TEST(sim_image, files_are_served_with_their_length)
{
    const rtls::temp_file file{"a.bin"};
    const auto directory = std::filesystem::path{file.path()}.parent_path();
    const bytes image = make_image({});
    ASSERT_TRUE(write_file(file.path(), image));
    EXPECT_EQ(read_file(file.path()), image);
    EXPECT_FALSE(read_file(directory / "b.bin"));
    {
        const image_server server{"127.0.0.1", 0, directory, [](const std::string&) {}};
        ASSERT_TRUE(server.is_up());
        const std::string answer =
            answer_to(server.port(), "GET /a.bin HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
        EXPECT_EQ(answer.substr(0, 12), "HTTP/1.1 200");
        EXPECT_NE(answer.find("Content-Length: 100000\r\n"), std::string::npos);
        EXPECT_TRUE(answer.ends_with(std::string{image.begin(), image.end()}));
        const std::string missing =
            answer_to(server.port(), "GET /b.bin HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
        EXPECT_EQ(missing.substr(0, 12), "HTTP/1.1 404");
        const image_server second{"127.0.0.1", server.port(), directory / "nowhere",
                                  [](const std::string&) {}};
        EXPECT_FALSE(second.is_up());
        const image_server beside{"127.0.0.1", server.port(), directory, [](const std::string&) {}};
        EXPECT_FALSE(beside.is_up()) << "the port has its server";
    }
}

} // namespace sim
