#include "rtls-gateway.h"

#include "base/common.h"
#include "base/czmq_ptr.h"
#include "base/signals.h"
#include "firmware/firmware.h"
#include "firmware/ota.h"
#include "registry/nodes_container.h"
#include "server/win_server.h"
#include "support/log_capture.h"
#include "support/sanitizers.h"
#include "support/stop.h"
#include "support/tcp_listener.h"
#include "support/temp_file.h"
#include "support/test_gateway.h"
#include "support/texts.h"
#include "terminal/terminal_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <malloc.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// The file whose next close by this thread fails, as that of a file on a server may; null: none.
static thread_local const char* file_that_fails_to_close = nullptr;

static bool is_named(int file, const char* path)
{
    char name[4096] = "";
    const std::string link = "/proc/self/fd/" + std::to_string(file);
    return readlink(link.c_str(), name, sizeof name - 1) > 0 && strcmp(name, path) == 0;
}

// In the place of the C library's, for all that this program has loaded.
extern "C" int close(int file)
{
    const char* failing = file_that_fails_to_close;
    const bool fails = failing && is_named(file, failing);
    const auto result = static_cast<int>(syscall(SYS_close, file));
    if (!fails)
        return result;
    file_that_fails_to_close = nullptr;
    errno = EDQUOT;
    return -1;
}

namespace rtls {

using testing::IsEmpty;

namespace {

using gateway_ptr = std::unique_ptr<void, destroyed_by<rtls_gateway_destroy>>;

class gateway : public testing::Test {
protected:
    gateway()
    {
        debug_mask = 0;
        clear_stop();
    }
    ~gateway() override { clear_stop(); }

    // With ports that no gateway has had before: the library closes sockets some time after their end.
    gateway_config new_config() const
    {
        return gateway_config{}.set("pidfile", m_pid_file.path()).set("firmware_files", "5");
    }
    gateway_ptr create() const { return created_from(m_config); }
    static gateway_ptr created_from(const gateway_config& config)
    {
        const temp_file file{"gateway.conf", config.text()};
        return gateway_ptr(rtls_gateway_new(file.path()));
    }

    std::string pid_file_content() const
    {
        std::ifstream stream(m_pid_file.path());
        return {std::istreambuf_iterator<char>(stream), {}};
    }

    texts_t logged() { return m_log.messages("main"); }

    log_capture m_log;
    const temp_file m_pid_file{"gateway.pid"};
    gateway_config m_config = new_config();
};

TEST_F(gateway, owns_its_services_and_hands_them_out)
{
    void* given = create().release();
    ASSERT_NE(given, nullptr);
    EXPECT_STREQ(zconfig_get(rtls_gateway_get_config(given), "firmware_files", ""), "5");
    EXPECT_NE(rtls_gateway_get_win_server(given), nullptr);
    EXPECT_NE(rtls_gateway_get_terminal_server(given), nullptr);
    EXPECT_EQ(nodes_container_get_size(rtls_gateway_get_nodes_container(given)), 0U);
    EXPECT_EQ(ota_get_files_number(rtls_gateway_get_ota(given)), 5);
    EXPECT_EQ(rtls_gateway_get_firmware(given), nullptr);
    EXPECT_NE(rtls_gateway_get_win_clients(given), nullptr);
    EXPECT_EQ(rtls_gateway_get_win_clients(given),
              win_server_get_clients(rtls_gateway_get_win_server(given)));
    EXPECT_NE(rtls_gateway_get_terminal_clients(given), nullptr);
    EXPECT_EQ(rtls_gateway_get_terminal_clients(given),
              terminal_server_get_clients(rtls_gateway_get_terminal_server(given)));
    rtls_gateway_destroy(&given);
    EXPECT_EQ(given, nullptr);
    rtls_gateway_destroy(&given);
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(gateway, the_first_missing_key_is_the_one_reported)
{
    constexpr size_t required = 10;
    const gateway_config all = m_config;
    for (size_t i = 0; i < required; ++i) {
        const std::string& path = all.items[i].path;
        SCOPED_TRACE(path);
        EXPECT_EQ(created_from(gateway_config{all}.remove(path)), nullptr);
        EXPECT_EQ(logged(), texts_t{"Parameter \"" + path + "\" is not found in the configuration file!"});
    }
    for (size_t i = 0; i < required; ++i) {
        SCOPED_TRACE("nothing from " + all.items[i].path + " on");
        m_config.items.assign(all.items.begin(), all.items.begin() + static_cast<ptrdiff_t>(i));
        EXPECT_EQ(create(), nullptr);
        texts_t logged_now = logged();
        ASSERT_FALSE(logged_now.empty());
        EXPECT_EQ(logged_now.back(),
                  "Parameter \"" + all.items[i].path + "\" is not found in the configuration file!");
        EXPECT_EQ(logged_now.size(), i == 0 ? 1U : 1U + DBG_SECTIONS_NUMBER);
    }
}

TEST_F(gateway, files_that_give_no_configuration)
{
    const texts_t no_pid_file = {"Parameter \"pidfile\" is not found in the configuration file!"};
    const texts_t no_file = {"Error opening configuration file!"};
    const temp_file empty("empty.conf", "");
    const temp_file missing("missing.conf");
    const struct {
        const char* file;
        const texts_t& then;
    } cases[] = {{empty.path(), no_pid_file},
                 {"/dev/null", no_pid_file},
                 {"/tmp", no_pid_file},
                 {missing.path(), no_file}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        EXPECT_EQ(rtls_gateway_new(c.file), nullptr);
        EXPECT_EQ(logged(), c.then);
    }
}

TEST_F(gateway, firmware_files_is_checked_after_its_cut_to_16_bits)
{
    const texts_t incorrect = {"rtls_gateway_new: The parameter \"firmware_files\" has an incorrect value!"};
    const texts_t no_digits = {"config_value_long_get: strtol: No digits were found"};
    const struct {
        const char* value;
        uint16_t then; // 0: no gateway
        texts_t logged;
    } cases[] = {
        {"0", 0, incorrect}, {"1", 1, {}},          {"5", 5, {}},
        {"6", 0, incorrect}, {"-1", 0, incorrect},  {"65536", 0, incorrect},
        {"65537", 1, {}},    {"abc", 0, no_digits}, {"\"\"", 0, no_digits},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        m_config.set("firmware_files", c.value);
        const gateway_ptr given = create();
        EXPECT_EQ(given != nullptr, c.then != 0);
        EXPECT_EQ(logged(), c.logged);
        if (given != nullptr) {
            EXPECT_EQ(ota_get_files_number(rtls_gateway_get_ota(given.get())), c.then);
        }
    }
}

TEST_F(gateway, debug_sections_are_only_ever_switched_on)
{
    const struct {
        std::vector<std::pair<const char*, const char*>> given;
        uint16_t before;
        uint16_t then;
    } cases[] = {
        {{}, 0, 0},
        {{{"debug/raw", "yes"}}, 0, 0x01},
        {{{"debug/parsing", "1"}, {"debug/ul_tdoa", "true"}}, 0, 0x42},
        {{{"debug/win", "on"}}, 0, 0},
        {{{"debug/raw", "no"}}, 0x7F, 0x7F},
        {{{"debug/discovery", "Y"}}, 0x08, 0x18},
    };
    const gateway_config all = m_config;
    for (const auto& c : cases) {
        m_config = all;
        debug_mask = c.before;
        for (const auto& [key, value] : c.given)
            m_config.set(key, value);
        const gateway_ptr given = create();
        EXPECT_NE(given, nullptr);
        EXPECT_EQ(debug_mask, c.then);
    }
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(gateway, missing_debug_keys_are_logged_and_no_failure)
{
    m_config.items.resize(10);
    const gateway_ptr given = create();
    EXPECT_NE(given, nullptr);
    texts_t expected;
    for (const char* section : dbg_section_name)
        expected.push_back("Parameter \"debug/" + std::string(section) +
                           "\" is not found in the configuration file!");
    EXPECT_EQ(logged(), expected);
    EXPECT_EQ(debug_mask, 0);
}

TEST_F(gateway, debug_level_wraps_at_16_bits)
{
    const gateway_ptr given = create();
    EXPECT_EQ(rtls_gateway_get_debug_level(given.get()), 0);
    EXPECT_EQ(rtls_gateway_increment_debug_level(given.get()), 1);
    EXPECT_EQ(rtls_gateway_get_debug_level(given.get()), 1);
    rtls_gateway_set_debug_level(given.get(), 65534);
    EXPECT_EQ(rtls_gateway_get_debug_level(given.get()), 65534);
    EXPECT_EQ(rtls_gateway_increment_debug_level(given.get()), 65535);
    EXPECT_EQ(rtls_gateway_increment_debug_level(given.get()), 0);
    EXPECT_EQ(rtls_gateway_get_debug_level(given.get()), 0);
}

TEST_F(gateway, a_new_firmware_takes_the_place_of_the_one_before)
{
    const gateway_ptr given = create();
    const temp_file image("image_0123abcd_.bin", "firmware");
    void* first = firmware_get_from_url(image.url().c_str());
    void* second = firmware_get_from_url(image.url().c_str());
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    rtls_gateway_set_firmware(given.get(), first);
    EXPECT_EQ(rtls_gateway_get_firmware(given.get()), first);
    rtls_gateway_set_firmware(given.get(), second);
    EXPECT_EQ(rtls_gateway_get_firmware(given.get()), second);
    rtls_gateway_set_firmware(given.get(), nullptr);
    EXPECT_EQ(rtls_gateway_get_firmware(given.get()), nullptr);
    rtls_gateway_set_firmware(given.get(), firmware_get_from_url(image.url().c_str()));
}

// A daemon that runs for years is given images again and again.
TEST_F(gateway, the_firmware_before_is_given_back)
{
    if (!malloc_can_refuse)
        GTEST_SKIP() << "sanitizers have an allocator of their own, and report the leak itself";
    const auto in_use = [] {
        const struct mallinfo2 info = mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    constexpr size_t large = 8'000'000;
    const gateway_ptr given = create();
    const temp_file image("image_0123abcd_.bin", std::string(large, 'x'));
    const size_t before = in_use();
    rtls_gateway_set_firmware(given.get(), firmware_get_from_url(image.url().c_str()));
    ASSERT_GE(in_use(), before + large);
    for (int i = 0; i < 3; ++i)
        rtls_gateway_set_firmware(given.get(), firmware_get_from_url(image.url().c_str()));
    EXPECT_LT(in_use(), before + large + large / 2);
    rtls_gateway_set_firmware(given.get(), nullptr);
    EXPECT_LT(in_use(), before + large / 2);
}

TEST_F(gateway, nodes_update_goes_to_all_bridges)
{
    test_gateway given{m_config};
    given.win_server().win_sock.reset(zsock_new(ZMQ_STREAM)); // nobody is connected: what is sent waits
    std::vector<WIN_CLIENT_t*> bridges;
    for (const uint8_t number : {uint8_t{1}, uint8_t{2}, uint8_t{3}})
        bridges.push_back(given.add_bridge(std::array<uint8_t, 5>{0, 0, 0, 0, number}));
    rtls_gateway_nodes_update(given.handle());
    for (WIN_CLIENT_t* bridge : bridges)
        EXPECT_EQ(bridge->unsent_messages.size(), 1U);
}

TEST_F(gateway, nodes_update_without_a_bridge_has_nothing_to_do)
{
    const gateway_ptr given = create();
    rtls_gateway_nodes_update(given.get());
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(gateway, runs_both_actors_and_writes_its_pid)
{
    test_gateway given{m_config};
    ASSERT_TRUE(rtls_gateway_run(given.handle()));
    EXPECT_EQ(pid_file_content(), std::to_string(getpid()));
    struct stat status {};
    ASSERT_EQ(stat(m_pid_file.path(), &status), 0);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(status.st_mode & 0777, 0640U & ~mask);
    EXPECT_TRUE(win_server_is_ready(rtls_gateway_get_win_server(given.handle())));
    EXPECT_TRUE(terminal_server_is_ready(rtls_gateway_get_terminal_server(given.handle())));
    given.stop();
    EXPECT_EQ(pid_file_content(), std::to_string(getpid())) << "the file stays";
}

TEST_F(gateway, the_pid_overwrites_the_start_of_the_file)
{
    std::ofstream(m_pid_file.path()) << "123456789123456789";
    const test_gateway given{m_config};
    ASSERT_TRUE(rtls_gateway_run(given.handle()));
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(pid_file_content(), pid + std::string("123456789123456789").substr(pid.size()));
}

struct pid_file_case {
    const char* file;
    const char* then;
};

class gateway_with_bad_pid_file : public gateway, public testing::WithParamInterface<pid_file_case> {};

TEST_P(gateway_with_bad_pid_file, fails_the_run)
{
    m_config.set("pidfile", GetParam().file);
    const test_gateway given{m_config};
    EXPECT_FALSE(rtls_gateway_run(given.handle()));
    EXPECT_THAT(logged(), testing::Contains(GetParam().then));
}

constexpr pid_file_case bad_pid_files[] = {
    {"/nonexistent/gateway.pid",
     "unable to create pid file /nonexistent/gateway.pid, code=2 (No such file or directory)"},
    {"/tmp", "unable to create pid file /tmp, code=21 (Is a directory)"},
    {"/dev/full", "unable to write pid file /dev/full, code=28 (No space left on device)"},
    {"\"\"", "unable to create pid file , code=2 (No such file or directory)"},
};
INSTANTIATE_TEST_SUITE_P(files, gateway_with_bad_pid_file, testing::ValuesIn(bad_pid_files));

TEST_F(gateway, a_pid_file_that_fails_to_close_fails_the_run)
{
    const test_gateway given{m_config};
    file_that_fails_to_close = m_pid_file.path();
    EXPECT_FALSE(rtls_gateway_run(given.handle()));
    EXPECT_THAT(logged(), testing::Contains("unable to close pid file " + std::string(m_pid_file.path()) +
                                            ", code=122 (Disk quota exceeded)"));
}

// The text is what operators have to go by: all of it, the longest that a file can fail with.
TEST_F(gateway, a_bad_pid_file_is_reported_with_the_systems_whole_text)
{
    const temp_file loop("loop");
    ASSERT_EQ(symlink(loop.path(), loop.path()), 0);
    test_gateway given{m_config.set("pidfile", loop.path())};
    EXPECT_FALSE(rtls_gateway_run(given.handle()));
    EXPECT_THAT(logged(), testing::Contains("unable to create pid file " + std::string(loop.path()) +
                                            ", code=40 (Too many levels of symbolic links)"));
}

TEST_F(gateway, an_interrupt_before_the_start_leaves_no_pid_file)
{
    const test_gateway given{m_config};
    request_stop();
    EXPECT_FALSE(rtls_gateway_run(given.handle()));
    EXPECT_EQ(access(m_pid_file.path(), F_OK), -1);
}

TEST_F(gateway, a_signal_that_waited_during_the_start_leaves_no_pid_file)
{
    for (const int signal : {SIGINT, SIGTERM}) {
        clear_stop();
        block_stop_signals();
        const test_gateway given{new_config()}; // the sockets' library has its handlers from here on
        ASSERT_EQ(raise(signal), 0);
        EXPECT_FALSE(is_stop_requested());
        EXPECT_FALSE(rtls_gateway_run(given.handle()));
        EXPECT_TRUE(is_stop_requested());
        EXPECT_EQ(access(m_pid_file.path(), F_OK), -1);
    }
}

TEST_F(gateway, an_occupied_port_ends_the_run)
{
    const tcp_listener occupied;
    for (const char* key : {"ports/win", "ports/terminal"}) {
        SCOPED_TRACE(key);
        const test_gateway given{new_config().set(key, occupied.port())};
        EXPECT_FALSE(rtls_gateway_run(given.handle()));
        EXPECT_TRUE(is_stop_requested());
        EXPECT_EQ(access(m_pid_file.path(), F_OK), -1);
    }
}

TEST_F(gateway, running_twice_fails_the_second_time)
{
    const test_gateway given{m_config};
    EXPECT_TRUE(rtls_gateway_run(given.handle()));
    EXPECT_FALSE(rtls_gateway_run(given.handle()));
}

TEST_F(gateway, its_threads_have_names)
{
    const test_gateway given{m_config};
    ASSERT_TRUE(rtls_gateway_run(given.handle()));
    texts_t names;
    for (const auto& thread : std::filesystem::directory_iterator{"/proc/self/task"})
        std::getline(std::ifstream{thread.path() / "comm"}, names.emplace_back());
    EXPECT_THAT(names, testing::IsSupersetOf({"rtls-win", "rtls-terminal"}));
}

} // namespace

} // namespace rtls
