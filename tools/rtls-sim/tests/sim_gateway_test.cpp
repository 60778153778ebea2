// The simulator against the real daemon, and against none.
#include "rtls-sim/gateway_config.h"
#include "rtls-sim/image.h"
#include "rtls-sim/network.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <thread>

namespace sim {

using namespace std::chrono_literals;

static constexpr auto patience = 60s; // sanitizers and busy machines are slow

static bool comes_true(const std::function<bool()>& condition)
{
    return rtls::wait_until(condition, patience);
}

// A daemon of our own, with its configuration in a directory that goes with it.
class daemon {
public:
    daemon()
    {
        std::filesystem::create_directories(m_directory);
        const std::string text = config_text(ports, (m_directory / "pid").string());
        write_file(m_directory / "conf", {reinterpret_cast<const uint8_t*>(text.data()), text.size()});
        start();
    }
    ~daemon()
    {
        stop();
        std::filesystem::remove_all(m_directory);
    }
    daemon(const daemon&) = delete;
    daemon& operator=(const daemon&) = delete;

    void start()
    {
        std::filesystem::remove(m_directory / "pid");
        std::string file = (m_directory / "conf").string();
        std::string program = RTLS_GATEWAY_PROGRAM;
        std::string option = "-c";
        char* arguments[] = {program.data(), option.data(), file.data(), nullptr};
        ASSERT_EQ(posix_spawn(&m_pid, program.c_str(), nullptr, nullptr, arguments, environ), 0);
    }
    // Returns its exit status.
    int stop()
    {
        if (m_pid <= 0)
            return -1;
        kill(m_pid, SIGTERM);
        int status = -1;
        waitpid(m_pid, &status, 0);
        m_pid = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    gateway_ports ports = free_ports(port_choice::any_free);
    const std::filesystem::path m_directory =
        std::filesystem::path{testing::TempDir()} / ("sim_gateway_test." + std::to_string(getpid()));

private:
    pid_t m_pid = 0;
};

static network_options options_for(const gateway_ports& ports)
{
    network_options options;
    options.field.win_port = ports.win;
    options.field.discovery_port = ports.discovery;
    options.field.bridges = 3;
    options.field.rate = 300;
    options.servers.proxy_port = ports.proxy;
    options.servers.proxy_input_port = ports.proxy_input;
    options.servers.handler_port = ports.handler;
    options.servers.broker_port = ports.broker;
    options.console.quiet = true;
    options.read_commands = false;
    options.check = true;
    options.duration = 2;
    options.deadline = std::chrono::duration<double>(patience).count();
    return options;
}

TEST(sim_gateway, every_report_arrives_once_and_right)
{
    daemon gateway;
    EXPECT_EQ(run_network(options_for(gateway.ports)), 0);
    EXPECT_EQ(gateway.stop(), 0);
}

TEST(sim_gateway, bridges_that_come_and_go_lose_nothing)
{
    daemon gateway;
    network_options options = options_for(gateway.ports);
    options.field.churn = 0.2;
    EXPECT_EQ(run_network(options), 0);
    EXPECT_EQ(gateway.stop(), 0);
}

TEST(sim_gateway, the_gateway_is_found_by_discovery)
{
    daemon gateway;
    network_options options = options_for(gateway.ports);
    options.field.discover = true;
    options.field.win_port = 1; // not where it is
    options.duration = 0.5;
    EXPECT_EQ(run_network(options), 0);
}

TEST(sim_gateway, a_node_updates_over_the_air)
{
    daemon gateway;
    const bytes image = make_image({});
    const auto file = gateway.m_directory / image_name(image_traits{}.git_id);
    ASSERT_TRUE(write_file(file, image));
    network_options options = options_for(gateway.ports);
    options.ota = file.string();
    options.field.ota_image = image;
    options.servers.ota_image = image;
    // The gateway lacks the image: the servers hand it page by page.
    EXPECT_EQ(run_network(options), 0);
    // By now it has every page; they are not asked again.
    options.servers.ota_image.clear();
    EXPECT_EQ(run_network(options), 0);
    EXPECT_EQ(gateway.stop(), 0);
}

TEST(sim_gateway, a_check_without_a_gateway_fails)
{
    network_options options = options_for(free_ports(port_choice::any_free));
    options.deadline = 0.2;
    EXPECT_EQ(run_network(options), 3);
}

TEST(sim_gateway, a_check_of_an_update_that_cannot_be_fails)
{
    daemon gateway;
    network_options options = options_for(gateway.ports);
    options.ota = "0102A0FF:AABBCCDD:5000:512"; // nobody has it
    EXPECT_EQ(run_network(options), 1);
}

TEST(sim_gateway, a_taken_port_is_an_error)
{
    daemon gateway;
    network_options options = options_for(gateway.ports);
    options.servers.handler_port = gateway.ports.win;
    ASSERT_TRUE(comes_true([&] { return std::filesystem::exists(gateway.m_directory / "pid"); }));
    EXPECT_EQ(run_network(options), 1);
}

TEST(sim_gateway, bridges_and_servers_outlive_a_gateway_that_restarts)
{
    daemon gateway;
    const network_options options = options_for(gateway.ports);
    console out{options.console};
    tracker reports;
    servers upstream{options.servers, &reports, out};
    field network{options.field, reports, out};
    std::jthread servers_thread{[&](const std::stop_token& stop) { upstream.run(stop); }};
    std::jthread field_thread{[&](const std::stop_token& stop) { network.run(stop); }};
    network.let_bridges_connect();
    for (int life = 0; life < 2; ++life) {
        ASSERT_TRUE(comes_true([&] { return upstream.gateway_is_here() && network.is_complete(); }));
        network.let_reports_flow(true);
        const uint64_t before = reports.counts().received;
        ASSERT_TRUE(comes_true([&] { return reports.counts().received > before + 100; }));
        network.let_reports_flow(false);
        gateway.stop();
        ASSERT_TRUE(
            comes_true([&] { return !upstream.gateway_is_here() && network.state().bridges_joined == 0; }));
        EXPECT_EQ(network.state().nodes_introduced, 0U);
        gateway.start();
    }
    EXPECT_EQ(reports.counts().unexpected, 0U);
}

} // namespace sim
