// What main itself does, run as the daemon runs it, in a process of its own.
#include "support/gateway_config.h"
#include "support/temp_file.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

// The test has a main as well.
#define main daemon_main // NOLINT
#include "../../src/main.cpp"
#undef main

namespace rtls {

namespace {

std::string content_of(const std::string& path)
{
    std::ifstream stream(path);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// A running daemon, once it has written its PID.
class daemon_process {
public:
    daemon_process()
    {
        m_pid = fork();
        if (m_pid == 0) {
            std::string name = "rtls-gateway";
            std::string option = "-c";
            std::string file = m_config.path();
            char* arguments[] = {name.data(), option.data(), file.data(), nullptr};
            _exit(daemon_main(3, arguments));
        }
        EXPECT_TRUE(wait_until([&] { return content_of(m_pid_file.path()) == std::to_string(m_pid); }));
    }
    ~daemon_process()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    daemon_process(const daemon_process&) = delete;
    daemon_process& operator=(const daemon_process&) = delete;

    // A set of signals out of the system's knowledge of the process: "SigIgn", "SigCgt".
    unsigned long signals(const std::string& name) const
    {
        const std::string status = content_of("/proc/" + std::to_string(m_pid) + "/status");
        const size_t at = status.find(name + ":\t");
        return at == std::string::npos ? 0 : std::stoul(status.substr(at + name.size() + 2), nullptr, 16);
    }

    // Its exit status after the signal, or -1.
    int status_after(int signal)
    {
        kill(m_pid, signal);
        int status = 0;
        waitpid(std::exchange(m_pid, 0), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    const temp_file m_pid_file{"gateway.pid"};
    const temp_file m_config{"gateway.conf", gateway_config{}.set("pidfile", m_pid_file.path()).text()};
    pid_t m_pid;
};

bool holds(unsigned long signals, int signal)
{
    return (signals >> (signal - 1) & 1) != 0;
}

} // namespace

// A peer or a log collector that goes away while it is written to must not take the daemon along.
TEST(daemon, ignores_broken_pipes)
{
    daemon_process daemon;
    EXPECT_TRUE(holds(daemon.signals("SigIgn"), SIGPIPE));
    EXPECT_EQ(daemon.status_after(SIGTERM), EXIT_SUCCESS);
}

TEST(daemon, ends_in_order_at_either_stop_signal)
{
    for (const int signal : {SIGINT, SIGTERM}) {
        daemon_process daemon;
        EXPECT_EQ(daemon.status_after(signal), EXIT_SUCCESS);
    }
}

} // namespace rtls
