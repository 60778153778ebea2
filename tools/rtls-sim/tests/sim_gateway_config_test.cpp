#include "rtls-sim/gateway_config.h"

#include "support/temp_file.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <set>

namespace sim {

static std::vector<uint16_t> all(const gateway_ports& p)
{
    return {p.terminal, p.win, p.discovery, p.proxy, p.proxy_input, p.handler, p.broker, p.images};
}

TEST(sim_gateway_config, what_is_written_is_read_back)
{
    const gateway_ports ports{11, 12, 13, 14, 15, 16, 17, 18};
    const std::string text = config_text(ports, "/tmp/a pid");
    const rtls::temp_file file{"gateway.conf", text};
    const auto read = read_ports(file.path());
    ASSERT_TRUE(read);
    EXPECT_EQ(all(*read), all(ports));
    std::filesystem::remove(file.path());
    EXPECT_FALSE(read_ports(file.path()));
}

TEST(sim_gateway_config, ports_that_are_not_named_stay_usual)
{
    const rtls::temp_file file{"gateway.conf", "ports\n    win = 0x100\n"};
    gateway_ports expected;
    expected.win = 0x100;
    EXPECT_EQ(all(*read_ports(file.path())), all(expected));
}

TEST(sim_gateway_config, a_port_that_is_taken_is_replaced)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(gateway_ports{}.win);
    // Whether this succeeds or not, somebody has the port now.
    [[maybe_unused]] const bool ours =
        bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 && listen(fd, 1) == 0;
    EXPECT_NE(free_ports().win, gateway_ports{}.win);
    close(fd);
}

TEST(sim_gateway_config, free_ports_differ_and_are_none_of_the_usual)
{
    const auto usual = all({});
    const auto found = all(free_ports(port_choice::any_free));
    const std::set<uint16_t> distinct{found.begin(), found.end()};
    EXPECT_EQ(distinct.size(), found.size());
    for (uint16_t port : usual)
        EXPECT_FALSE(distinct.contains(port));
}

} // namespace sim
