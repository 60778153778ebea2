// The debug stream, on its way to the operators who have subscribed to it.
#include "base/common.h"
#include "support/hex_bytes.h"
#include "support/tcp_state.h"
#include "support/terminal_server_fixture.h"
#include "support/wait.h"
#include "terminal/terminal_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>

namespace rtls {

using terminal_stream_test = terminal_server_fixture;
using testing::HasSubstr;

static const terminal_counters& counts_of(const void* server)
{
    return terminal_server_figures(*static_cast<const TERMINAL_SERVER_t*>(server)).counts;
}

TEST_F(terminal_stream_test, lines_go_to_subscribers_through_their_filters)
{
    operator_peer all{port()};
    operator_peer filtered{port()};
    operator_peer none{port()};
    all.ask("sub\n", "\n");
    filtered.ask("sub\n", "\n");
    filtered.ask("grep wanted[0-9].*$\n", "\n");
    none.ask("grep wanted\n", "\n");
    enable_stream();
    for (const char* text : {"wanted1", "other", "wanted2", "last of all"})
        stream(text);
    const std::string seen = all.read_until("last of all\n");
    EXPECT_EQ(std::count(seen.begin(), seen.end(), '\n'), 4);
    EXPECT_THAT(seen, HasSubstr(" \033[35mTEST:\033[0m other\n"));
    EXPECT_THAT(seen, testing::MatchesRegex("(.*\n)*"));
    const std::string matching = filtered.read_until("wanted2\n");
    EXPECT_EQ(std::count(matching.begin(), matching.end(), '\n'), 2);
    EXPECT_THAT(matching, HasSubstr("TEST:\033[0m wanted1\n"));
    debug_mask = 0;
    const auto& delivered = counts_of(server()).lines;
    EXPECT_TRUE(wait_until([&] { return delivered.sum() == 8; }));
    EXPECT_EQ(counts_of(server()).lines_taken.value(), 4U);
    EXPECT_EQ(delivered[line_outcome::streamed].value(), 6U);
    EXPECT_EQ(delivered[line_outcome::filtered].value(), 2U);
    EXPECT_EQ(filtered.ask("sub-\n", "\n"), "unsubscribed * ok.\n");
    EXPECT_EQ(none.ask("sub-\n", "\n"), "unsubscribed * ok.\n") << "lines without a subscription";
}

TEST_F(terminal_stream_test, no_lines_come_after_the_subscription)
{
    operator_peer peer{port()};
    operator_peer watcher{port()};
    peer.ask("sub\n", "\n");
    watcher.ask("sub\n", "\n");
    enable_stream();
    stream("first");
    EXPECT_THAT(peer.read_until("\n"), HasSubstr("first\n"));
    peer.ask("sub-\n", "unsubscribed * ok.\n");
    stream("second");
    EXPECT_THAT(watcher.read_until("second\n"), HasSubstr("second\n"));
    debug_mask = 0;
    EXPECT_EQ(peer.ask("sub-\n", "\n"), "unsubscribed * ok.\n");
}

TEST_F(terminal_stream_test, a_filter_that_failed_lets_all_lines_pass)
{
    operator_peer peer{port()};
    peer.ask("sub\n", "\n");
    peer.ask("grep abc\n", "GREP: abc\n");
    EXPECT_EQ(peer.ask("grep (\n", "GREP: abc\n"), "GREP: cannot set regexp:  Invalid argument\nGREP: abc\n");
    enable_stream();
    stream("without a match");
    EXPECT_THAT(peer.read_until("\n"), HasSubstr("without a match\n"));
}

TEST_F(terminal_stream_test, a_long_line_is_cut_and_ends_without_a_line_feed)
{
    operator_peer peer{port()};
    peer.ask("sub\n", "\n");
    enable_stream();
    stream(std::string(3000, 'x'));
    stream("next");
    const std::string seen = peer.read_until("next\n");
    EXPECT_EQ(seen.find("\033[36m", 1), 2047u);
}

TEST_F(terminal_stream_test, subscribers_may_leave_while_lines_are_streaming)
{
    operator_peer steady{port()};
    enable_stream();
    std::atomic<bool> stop{false};
    std::thread source{[&] {
        const zsock_ptr dbg{zsock_new_push(">inproc://dbg_dump")};
        while (!stop) {
            dbg_print(dbg.get(), DBG_DEVELOP, "TEST", "busy");
            std::this_thread::yield();
        }
    }};
    for (int round = 0; round < 30; ++round) {
        operator_peer peer{port()};
        peer.ask("sub\n", "\n");
        peer.read_until("busy\n");
        if (round % 2 == 0) {
            peer.write("quit\n");
            EXPECT_THAT(peer.read_until("bye bye.\n"), HasSubstr("bye bye.\n"));
        }
        peer.close();
        EXPECT_EQ(steady.ask("pn\n", pn_end), empty_pn) << round;
    }
    stop = true;
    source.join();
    EXPECT_TRUE(wait_until([&] { return terminals_seen_by(steady).size() == 1; }));
}

// An operator who does not read, and for whom no frame can be queued any more. `other` takes the turns
// after his.
static void stall(operator_peer& stalled, operator_peer& other, log_capture& log)
{
    stalled.ask("sub\n", "\n");
    const int fd = tcp_descriptor_towards(stalled.port());
    tcp_fix_send_buffer(fd);
    for (int round = 0; round < 2; ++round) { // the second one finds no room, wherever the first one ended
        (void)log.take();
        stalled.write("pnf\n");
        ASSERT_TRUE(log.wait_for("rcvd ID"));
        EXPECT_THAT(other.ask("info\n", info_end), testing::StartsWith(info_start));
        ASSERT_TRUE(wait_until([=] { return !tcp_is_moving(fd); }));
    }
}

TEST_F(terminal_stream_test, a_subscriber_who_never_reads_does_not_stop_the_others)
{
    for (uint32_t i = 0; i < 4'000; ++i) { // lines for four times the queue and the system's buffers
        bytes_t mac(8);
        std::memcpy(mac.data(), &i, sizeof i);
        m_gateway.add_node(mac);
    }
    operator_peer stalled{port(), 4096};
    operator_peer other{port()};
    stall(stalled, other, m_log);
    enable_stream();
    const terminal_counters& counts = counts_of(server());
    const auto stream_one = [&] {
        const uint64_t before = counts.lines_taken.value();
        stream("a line");
        EXPECT_TRUE(wait_until([&] { return counts.lines_taken.value() > before; }));
    };
    // There may be room for some lines in the library's queue still.
    EXPECT_TRUE(repeat_until([&] { return counts.lines[line_outcome::lost].value() > 0; }, stream_one));
    EXPECT_EQ(terminals_seen_by(other).size(), 2u);
    other.ask("sub\n", "\n");
    stream("the last");
    EXPECT_THAT(other.read_until("the last\n"), HasSubstr("the last\n"));
    debug_mask = 0;
    other.ask("sub-\n", "unsubscribed * ok.\n");

    stalled.write("quit\n"); // it cannot even be told; its connection is cut
    EXPECT_TRUE(wait_until([&] { return terminals_seen_by(other).size() == 1; }));
    EXPECT_TRUE(stalled.is_closed());
}

} // namespace rtls
