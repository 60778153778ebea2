// libc's own syslog(3) and a socket of the log that nobody reads, in a mount namespace of the test's own.

#include "core/clogger.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <string>

using std::chrono::seconds;

namespace {

// The rest of this process, and nobody else, sees an empty /dev.
bool enter_own_dev()
{
    if (unshare(CLONE_NEWNS) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
        return false;
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/dev", "tmpfs", 0, nullptr) == 0;
}

int bound_log_socket(int type)
{
    const int fd = socket(AF_UNIX, type, 0);
    const sockaddr_un address{AF_UNIX, "/dev/log"};
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    if (type == SOCK_STREAM) {
        EXPECT_EQ(listen(fd, 1), 0);
    }
    return fd;
}

class real_log : public testing::Test {
protected:
    void SetUp() override
    {
        static const bool has_own_dev = enter_own_dev();
        if (!has_own_dev)
            GTEST_SKIP() << "no right to mount";
        unlink("/dev/log");
    }
    ~real_log() override
    {
        if (m_socket >= 0)
            close(m_socket);
    }

    // A log of this kind of socket, and a logger.
    void start(int type)
    {
        m_socket = bound_log_socket(type);
        m_logger = create_logger("app");
        m_main = create_component_logger(m_logger, "main");
    }

    void log(int lines)
    {
        const std::string text(10'000, 'x');
        for (int i = 0; i < lines; ++i)
            logger_info(m_main, "%d %s", i, text.c_str());
    }

    // That the log gets the start, and so many lines.
    void expect_lines(int lines)
    {
        const timeval patience{10, 0};
        setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        std::string line(20'000, '\0');
        for (int i = -1; i < lines; ++i) {
            const ssize_t size = recv(m_socket, line.data(), line.size(), 0);
            ASSERT_GT(size, 0) << i;
            const std::string expected = i < 0 ? "Starting app" : std::to_string(i) + " xx";
            ASSERT_NE(line.substr(0, static_cast<size_t>(size)).find(" app: " + expected), line.npos) << i;
            ASSERT_TRUE(line.starts_with("<14>")) << "facility user, level info";
        }
    }

    void destroy()
    {
        destroy_component_logger(m_main);
        destroy_logger(m_logger);
    }

    void hold_up_nobody();

    int m_socket = -1;
    tav_logger m_logger = nullptr;
    tav_component_logger m_main = nullptr;
};

// The test's own patience ends the process: what hangs in libc cannot be called off.
void within_ten_seconds(const char* what, const std::function<void()>& action)
{
    auto done = std::async(std::launch::async, action);
    if (done.wait_for(seconds(10)) == std::future_status::timeout) {
        std::fprintf(stderr, "%s waits for the system log\n", what);
        std::_Exit(1);
    }
}

void real_log::hold_up_nobody()
{
    within_ten_seconds("a record", [this] { log(900); });
    const tav_log_counters counters = logger_get_counters(m_logger);
    EXPECT_LT(counters.written, 500U) << "it is stuck indeed";
    EXPECT_GT(counters.lost, 0U);
    within_ten_seconds("a flush", [this] { EXPECT_FALSE(logger_flush(m_logger, 1)); });
    within_ten_seconds("a question", [this] { EXPECT_FALSE(logger_debug_is_wanted(m_main)); });
    within_ten_seconds("the end", [this] { destroy(); });
    within_ten_seconds("libc", [] {
        closelog(); // as other libraries do at exit
        EXPECT_EQ(setlogmask(0), LOG_UPTO(LOG_INFO));
    });
}

TEST_F(real_log, of_datagrams_that_are_not_read_holds_up_nobody)
{
    start(SOCK_DGRAM);
    hold_up_nobody();
}

TEST_F(real_log, of_a_stream_that_is_not_read_holds_up_nobody)
{
    start(SOCK_STREAM);
    hold_up_nobody();
}

TEST_F(real_log, gets_every_line_once_it_is_read_again)
{
    start(SOCK_DGRAM);
    log(600);
    expect_lines(600);
    destroy();
    char more = 0;
    EXPECT_EQ(recv(m_socket, &more, sizeof more, MSG_DONTWAIT), -1);
}

TEST_F(real_log, gets_every_line_of_a_program_that_exits_without_a_word)
{
    m_socket = bound_log_socket(SOCK_DGRAM);
    const pid_t child = fork();
    if (child == 0) {
        static const tav_logger logger = create_logger("app"); // static: not a leak
        static const tav_component_logger main = create_component_logger(logger, "main");
        m_main = main;
        log(200);
        std::exit(0);
    }
    expect_lines(200);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

} // namespace
