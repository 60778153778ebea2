// The debug stream and the helpers of common.h.
#include "base/common.h"

#include "base/logger.h"
#include "support/log_capture.h"
#include "support/sock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace rtls {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
namespace {

constexpr tav_timestamp_t may_first{1714568822, 45}; // 2024-05-01 13:07:02.045 UTC

// A frame of the stream; empty if none comes within the time.
std::string receive_frame(zsock_t* pull, int timeout_ms = 5000)
{
    zsock_set_rcvtimeo(pull, timeout_ms);
    const zframe_ptr frame{zframe_recv(pull)};
    return frame ? std::string(reinterpret_cast<const char*>(zframe_data(frame.get())),
                               zframe_size(frame.get()))
                 : std::string{};
}

// What operators see of a message printed at may_first.
std::string line(const std::string& channel, const std::string& message)
{
    return "\033[36m05-01 13:07:02.045\033[0m \033[35m" + channel + ":\033[0m " + message + "\n";
}

zsock_ptr new_pull(const std::string& endpoint)
{
    return zsock_ptr{zsock_new_pull(("@" + endpoint).c_str())};
}

zsock_ptr new_push(const std::string& endpoint)
{
    return zsock_ptr{zsock_new_push((">" + endpoint).c_str())};
}

class debug_stream : public testing::Test {
protected:
    debug_stream() { debug_mask = 0; }
    ~debug_stream() override { debug_mask = 0; }

    log_capture log;
    std::string endpoint = new_endpoint();
    zsock_ptr pull = new_pull(endpoint);
    zsock_ptr push = new_push(endpoint);
};

} // namespace

TEST(debug_sections, have_their_names_and_numbers)
{
    const std::vector<std::string> names(std::begin(dbg_section_name), std::end(dbg_section_name));
    EXPECT_THAT(names, ElementsAre("raw", "parsing", "terminal", "win", "discovery", "develop", "ul_tdoa"));
    EXPECT_EQ(DBG_RAW, 0);
    EXPECT_EQ(DBG_PARSING, 1);
    EXPECT_EQ(DBG_TERMINAL, 2);
    EXPECT_EQ(DBG_WIN, 3);
    EXPECT_EQ(DBG_DISCOVERY, 4);
    EXPECT_EQ(DBG_DEVELOP, 5);
    EXPECT_EQ(DBG_UL_TDOA, 6);
    EXPECT_EQ(DBG_SECTIONS_NUMBER, 7);
}

TEST(shared_texts, are_exact)
{
    EXPECT_STREQ(str_null_pointer, "%s: null pointer!");
    EXPECT_STREQ(str_out_of_memory, "%s: out of memory!");
}

TEST_F(debug_stream, each_bit_of_the_mask_lets_its_own_section_through)
{
    for (int enabled = 0; enabled < DBG_SECTIONS_NUMBER; ++enabled) {
        debug_mask = static_cast<uint16_t>(1U << enabled);
        for (int section = 0; section < DBG_SECTIONS_NUMBER; ++section)
            dbg_print_ts(push.get(), may_first, static_cast<dbg_section_t>(section), "CONS", "section %d",
                         section);
        EXPECT_EQ(receive_frame(pull.get()), line("CONS", "section " + std::to_string(enabled)));
        EXPECT_EQ(receive_frame(pull.get(), 0), "");
    }
}

TEST_F(debug_stream, a_line_is_coloured_and_stamped_in_utc)
{
    setenv("TZ", "Asia/Tokyo", 1);
    tzset();
    debug_mask = 1U << DBG_WIN;
    dbg_print_ts(push.get(), may_first, DBG_WIN, "CONS", "Client %d disconnected", 7);
    EXPECT_EQ(receive_frame(pull.get()),
              "\033[36m05-01 13:07:02.045\033[0m \033[35mCONS:\033[0m Client 7 disconnected\n");
    unsetenv("TZ");
    tzset();
}

TEST_F(debug_stream, each_line_has_its_own_time)
{
    debug_mask = 1U << DBG_WIN;
    const struct {
        tav_timestamp_t time;
        const char* shown;
    } cases[] = {
        {{1714568822, 0}, "05-01 13:07:02.000"},   {{1714568822, 9}, "05-01 13:07:02.009"},
        {{1714568822, 999}, "05-01 13:07:02.999"}, {{1714568823, 10}, "05-01 13:07:03.010"},
        {{1714568822, 100}, "05-01 13:07:02.100"}, {{0, 99}, "01-01 00:00:00.099"},
    };
    for (const auto& c : cases) {
        dbg_print_ts(push.get(), c.time, DBG_WIN, "CONS", "now");
        EXPECT_EQ(receive_frame(pull.get()).substr(5, 18), c.shown);
    }
}

TEST_F(debug_stream, without_a_time_a_line_is_stamped_now)
{
    debug_mask = 1U << DBG_WIN;
    const tav_timestamp_t before = get_current_time();
    dbg_print(push.get(), DBG_WIN, "CONS", "now");
    const tav_timestamp_t after = get_current_time();
    const std::string frame = receive_frame(pull.get());
    const auto text_of = [](tav_timestamp_t time) {
        tm utc{};
        const auto seconds = static_cast<time_t>(time.seconds);
        gmtime_r(&seconds, &utc);
        char text[32];
        const size_t length = strftime(text, sizeof text, "%m-%d %H:%M:%S", &utc);
        snprintf(text + length, sizeof text - length, ".%03u", time.milliseconds);
        return std::string(text);
    };
    ASSERT_EQ(frame.size(), line("CONS", "now").size());
    EXPECT_LE(text_of(before), frame.substr(5, 18));
    EXPECT_GE(text_of(after), frame.substr(5, 18));
}

TEST_F(debug_stream, every_line_reaches_its_sections_log_whatever_the_mask)
{
    for (const uint16_t mask : {uint16_t{0x0000}, uint16_t{0x007F}}) {
        debug_mask = mask;
        dbg_print_ts(push.get(), may_first, DBG_RAW, "SLIP", "one %s", "a");
        dbg_print_ts(push.get(), may_first, DBG_WIN, "PROXY", "two");
        EXPECT_THAT(log.messages("raw"), ElementsAre("SLIP: one a"));
        EXPECT_THAT(log.take(), ElementsAre("&rtls-gateway:win       2024-05-01 13:07:02.045 PROXY: two"));
    }
}

TEST_F(debug_stream, a_message_is_never_a_format)
{
    debug_mask = 1U << DBG_TERMINAL;
    dbg_print_ts(push.get(), may_first, DBG_TERMINAL, "CONS", "%s", "100%s%n%1%");
    EXPECT_EQ(receive_frame(pull.get()), line("CONS", "100%s%n%1%"));
    EXPECT_THAT(log.messages("terminal"), ElementsAre("CONS: 100%s%n%1%"));
}

TEST_F(debug_stream, long_lines_are_cut_and_lose_their_end)
{
    debug_mask = 1U << DBG_RAW;
    const size_t frame_of_nothing = line("PROXY", "").size();
    const struct {
        const char* given;
        size_t message;
        size_t frame;
        bool ends;
    } cases[] = {
        {"the longest on the stack", 1023 - 7, 1016 + frame_of_nothing, true}, // with "PROXY: " before it
        {"one too long for the stack", 1024 - 7, 1017 + frame_of_nothing, true},
        {"one short of the limit", 2046 - frame_of_nothing, 2046, true},
        {"just within the limit", 2047 - frame_of_nothing, 2047, true},
        {"one too long", 2048 - frame_of_nothing, 2047, false},
        {"far too long", 3000, 2047, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        const std::string message(c.message, 'x');
        dbg_print_ts(push.get(), may_first, DBG_RAW, "PROXY", "%s", message.c_str());
        const std::string frame = receive_frame(pull.get());
        EXPECT_EQ(frame, line("PROXY", message).substr(0, c.frame));
        EXPECT_EQ(frame.ends_with('\n'), c.ends);
        EXPECT_THAT(log.messages("raw"), ElementsAre("PROXY: " + message));
    }
}

// A bound peer that does not read takes 2000 lines.
TEST_F(debug_stream, an_overflow_and_its_end_are_reported_once_each)
{
    debug_mask = 1U << DBG_DEVELOP;
    const auto print = [&](zsock_t* sock, size_t lines) {
        for (size_t i = 0; i < lines; ++i) {
            dbg_print_ts(sock, may_first, DBG_DEVELOP, "CONS", "line");
            if (i % 100 == 99)
                (void)log.messages("develop"); // lest the broker's queue lose what we look for
        }
    };
    for (int episode = 1; episode <= 2; ++episode) {
        SCOPED_TRACE(episode);
        const std::string stalled = new_endpoint();
        const zsock_ptr reader = new_pull(stalled);
        const zsock_ptr writer = new_push(stalled);
        print(writer.get(), 2000);
        EXPECT_THAT(log.messages("main"), IsEmpty());
        print(writer.get(), 1);
        EXPECT_THAT(log.messages("main"), ElementsAre("Overflow debugging queue!"));
        print(writer.get(), 10);
        EXPECT_THAT(log.messages("main"), IsEmpty());
        for (int i = 0; i < 2000; ++i)
            ASSERT_EQ(receive_frame(reader.get(), 0), line("CONS", "line"));
        EXPECT_EQ(receive_frame(reader.get(), 0), "");
        std::vector<std::string> logged; // the writer learns in its own time that there is room again
        for (int tries = 0; tries < 1000 && logged.empty(); ++tries) {
            print(writer.get(), 1);
            logged = log.messages("main");
        }
        EXPECT_EQ(logged.size(), 2U);
        EXPECT_EQ(logged.front(), "Exemption debugging queue!");
        EXPECT_TRUE(logged.back().starts_with("Overflow debugging queue: ")) << logged.back();
        print(writer.get(), 1);
        EXPECT_THAT(log.messages("main"), IsEmpty());
    }
}

TEST_F(debug_stream, an_overflow_of_one_socket_ends_with_a_line_of_another)
{
    debug_mask = 1U << DBG_DEVELOP;
    const zsock_ptr unconnected{zsock_new(ZMQ_PUSH)};
    const uint64_t before = dbg_lines_lost();
    dbg_print_ts(unconnected.get(), may_first, DBG_DEVELOP, "CONS", "lost");
    dbg_print_ts(unconnected.get(), may_first, DBG_DEVELOP, "CONS", "lost, too");
    EXPECT_EQ(dbg_lines_lost(), before + 2);
    EXPECT_THAT(log.messages("main"), ElementsAre("Overflow debugging queue!"));
    dbg_print_ts(push.get(), may_first, DBG_DEVELOP, "CONS", "passes");
    EXPECT_THAT(log.messages("main"), ElementsAre("Exemption debugging queue!",
                                                  StartsWith("Overflow debugging queue: 2 lost in ")));
}

TEST_F(debug_stream, lines_that_cannot_be_sent_at_all_are_counted_for_themselves)
{
    debug_mask = 1U << DBG_DEVELOP;
    const zsock_ptr deaf{zsock_new(ZMQ_PULL)}; // which sends nothing
    const uint64_t lost = dbg_lines_lost();
    const uint64_t failed = dbg_lines_failed();
    dbg_print_ts(deaf.get(), may_first, DBG_DEVELOP, "CONS", "line");
    EXPECT_EQ(dbg_lines_failed(), failed + 1);
    EXPECT_EQ(dbg_lines_lost(), lost);
    EXPECT_EQ(log.messages("main").size(), 1U);
}

TEST_F(debug_stream, a_thousand_lines_wait_for_the_terminal_server)
{
    debug_mask = 1U << DBG_DEVELOP;
    const std::string unbound = new_endpoint();
    const zsock_ptr early = new_push(unbound);
    for (int i = 0; i < 1000; ++i) {
        dbg_print_ts(early.get(), may_first, DBG_DEVELOP, "CONS", "line %d", i);
        if (i % 100 == 99)
            (void)log.messages("develop");
    }
    EXPECT_THAT(log.messages("main"), IsEmpty());
    dbg_print_ts(early.get(), may_first, DBG_DEVELOP, "CONS", "lost");
    EXPECT_THAT(log.messages("main"), ElementsAre("Overflow debugging queue!"));
    const zsock_ptr late = new_pull(unbound);
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(receive_frame(late.get()), line("CONS", "line " + std::to_string(i)));
    dbg_print_ts(push.get(), may_first, DBG_DEVELOP, "CONS", "ends the episode");
    EXPECT_THAT(log.messages("main"), ElementsAre("Exemption debugging queue!",
                                                  StartsWith("Overflow debugging queue: 1 lost in ")));
}

TEST_F(debug_stream, the_stop_says_what_an_overflow_has_cost_that_has_not_ended)
{
    debug_mask = 1U << DBG_DEVELOP;
    dbg_stream_stopping();
    EXPECT_THAT(log.messages("main"), IsEmpty());
    const zsock_ptr unconnected{zsock_new(ZMQ_PUSH)};
    for (int i = 0; i < 5; ++i)
        dbg_print_ts(unconnected.get(), may_first, DBG_DEVELOP, "CONS", "lost");
    EXPECT_THAT(log.messages("main"), ElementsAre("Overflow debugging queue!"));
    dbg_stream_stopping();
    EXPECT_THAT(log.messages("main"), ElementsAre(StartsWith("Overflow debugging queue: 5 lost in ")));
    dbg_stream_stopping();
    EXPECT_THAT(log.messages("main"), IsEmpty());
    dbg_print_ts(push.get(), may_first, DBG_DEVELOP, "CONS", "passes");
    EXPECT_THAT(log.messages("main"), ElementsAre("Exemption debugging queue!"));
}

TEST_F(debug_stream, other_failures_are_reported_each_time)
{
    debug_mask = 1U << DBG_WIN;
    for (int i = 0; i < 2; ++i) {
        dbg_print_ts(pull.get(), may_first, DBG_WIN, "CONS", "a PULL socket cannot send");
        EXPECT_THAT(log.messages("main"),
                    ElementsAre("dbg_print_ts_impl: zframe_send: 95, Operation not supported"));
    }
}

TEST_F(debug_stream, without_a_socket_lines_are_only_logged)
{
    debug_mask = 1U << DBG_WIN;
    dbg_print_ts(nullptr, may_first, DBG_WIN, "CONS", "no socket");
    dbg_print(nullptr, DBG_WIN, "CONS", "no socket %d", 2);
    EXPECT_THAT(log.messages("win"), ElementsAre("CONS: no socket", "CONS: no socket 2"));
    EXPECT_THAT(log.messages("main"), IsEmpty());
}

TEST_F(debug_stream, with_a_broker_every_section_is_wanted)
{
    for (int section = 0; section < DBG_SECTIONS_NUMBER; ++section)
        EXPECT_TRUE(dbg_is_wanted(static_cast<dbg_section_t>(section)));
}

TEST_F(debug_stream, counts_the_lines_that_are_left_out_and_no_questions)
{
    debug_mask = 1U << DBG_WIN;
    const uint64_t before = dbg_lines_held();
    dbg_hold(true);
    EXPECT_FALSE(dbg_is_heard(DBG_WIN));
    EXPECT_EQ(dbg_lines_held(), before);
    dbg_print(nullptr, DBG_WIN, "CONS", "left out");
    EXPECT_EQ(dbg_lines_held(), before + 1);
    dbg_hold(false);
    EXPECT_TRUE(dbg_is_heard(DBG_WIN));
    dbg_print(nullptr, DBG_WIN, "CONS", "told");
    EXPECT_EQ(dbg_lines_held(), before + 1);
    debug_mask = 0;
}

TEST_F(debug_stream, of_a_thread_that_holds_it_is_wanted_by_nobody)
{
    debug_mask = 1U << DBG_WIN;
    dbg_hold(true);
    EXPECT_FALSE(dbg_is_wanted(DBG_WIN));
    bool is_wanted_elsewhere = false;
    std::thread{[&] { is_wanted_elsewhere = dbg_is_wanted(DBG_WIN); }}.join();
    EXPECT_TRUE(is_wanted_elsewhere);
    dbg_hold(false);
    EXPECT_TRUE(dbg_is_wanted(DBG_WIN));
    debug_mask = 0;
}

TEST(debug_turn, goes_by_what_the_log_has_said_first)
{
    ASSERT_FALSE(dbg_is_heard(DBG_WIN));
    {
        const dbg_turn turn;
        EXPECT_FALSE(dbg_is_heard(DBG_WIN));
        const log_capture log;
        EXPECT_FALSE(dbg_is_heard(DBG_WIN));
        EXPECT_FALSE(dbg_is_heard(DBG_RAW)) << "the sections have one log";
        bool is_heard_elsewhere = false;
        std::thread{[&] { is_heard_elsewhere = dbg_is_heard(DBG_WIN); }}.join();
        EXPECT_TRUE(is_heard_elsewhere);
        debug_mask = 1U << DBG_WIN;
        EXPECT_TRUE(dbg_is_heard(DBG_WIN)) << "the stream is asked each time";
        debug_mask = 0;
        {
            const dbg_turn within;
            EXPECT_FALSE(dbg_is_heard(DBG_WIN));
        }
        EXPECT_FALSE(dbg_is_heard(DBG_WIN));
    }
    const log_capture log;
    EXPECT_TRUE(dbg_is_heard(DBG_WIN));
    const dbg_turn next;
    EXPECT_TRUE(dbg_is_heard(DBG_WIN));
}

TEST(debug_stream_without_loggers, is_wanted_by_the_mask_alone)
{
    ASSERT_EQ(g_logger_section, nullptr);
    debug_mask = 1U << DBG_DISCOVERY;
    EXPECT_TRUE(dbg_is_wanted(DBG_DISCOVERY));
    EXPECT_FALSE(dbg_is_wanted(DBG_WIN));
    const std::string endpoint = new_endpoint();
    const zsock_ptr pull = new_pull(endpoint);
    const zsock_ptr push = new_push(endpoint);
    dbg_print_ts(push.get(), may_first, DBG_DISCOVERY, "DISC", "streamed");
    dbg_print_ts(push.get(), may_first, DBG_WIN, "DISC", "nobody wants it");
    EXPECT_EQ(receive_frame(pull.get()), line("DISC", "streamed"));
    EXPECT_EQ(receive_frame(pull.get(), 0), "");
    debug_mask = 0;
}

TEST(debug_stream_without_loggers, logs_no_errors_and_does_not_crash)
{
    ASSERT_EQ(g_logger, nullptr);
    errno = EBADF;
    log_call_error("function", "call");
    log_system_call_error("function", "call");
    EXPECT_EQ(errno, EBADF);
}

TEST(log_call_error, tells_the_call_and_errno_with_its_text)
{
    log_capture log;
    const struct {
        int error;
        const char* zmq;
        const char* system;
    } cases[] = {
        {EAGAIN, "f: call: 11, Resource temporarily unavailable",
         "f: call: 11, Resource temporarily unavailable"},
        {ETERM, "f: call: 156384765, Context was terminated", "f: call: 156384765, Unknown error 156384765"},
        {EHOSTUNREACH, "f: call: 113, Host unreachable", "f: call: 113, No route to host"},
        {EOWNERDEAD, "f: call: 130, Owner died", "f: call: 130, Owner died"},
        {INT_MIN, "f: call: -2147483648, Unknown error -2147483648",
         "f: call: -2147483648, Unknown error -2147483648"}, // the longest that is made, not found
    };
    for (const auto& c : cases) {
        errno = c.error;
        log_call_error("f", "call");
        EXPECT_EQ(errno, c.error);
        log_system_call_error("f", "call");
        EXPECT_EQ(errno, c.error);
        EXPECT_THAT(log.messages("main"), ElementsAre(c.zmq, c.system));
    }
}

TEST(zloop_end_event, ends_a_loop_and_leaves_the_message)
{
    const zsock_ptr pull{zsock_new_pull("@inproc://end_event")};
    const zsock_ptr push{zsock_new_push(">inproc://end_event")};
    const zloop_ptr loop{zloop_new()};
    zloop_reader(loop.get(), pull.get(), zloop_end_event, nullptr);
    zstr_send(push.get(), "$TERM");
    EXPECT_EQ(zloop_start(loop.get()), -1);
    EXPECT_EQ(receive_frame(pull.get(), 0), "$TERM");
    EXPECT_EQ(zloop_end_event(nullptr, nullptr, nullptr), -1);
}

TEST(get_current_time, is_the_real_time_clock)
{
    timespec before{};
    timespec after{};
    clock_gettime(CLOCK_REALTIME, &before);
    const tav_timestamp_t now = get_current_time();
    clock_gettime(CLOCK_REALTIME, &after);
    EXPECT_LT(now.milliseconds, 1000U);
    const auto milliseconds = [](int64_t seconds, int64_t thousandths) {
        return seconds * 1000 + thousandths;
    };
    const int64_t measured = milliseconds(now.seconds, now.milliseconds);
    EXPECT_GE(measured, milliseconds(before.tv_sec, before.tv_nsec / 1'000'000));
    EXPECT_LE(measured, milliseconds(after.tv_sec, after.tv_nsec / 1'000'000));
}

// The number alone says little to an operator who has no source at hand.
TEST(call_errors, are_logged_with_the_whole_text_of_every_error)
{
    log_capture log;
    for (int error = 1; error < 134; ++error) {
        errno = error;
        log_call_error("function", "call");
        EXPECT_EQ(errno, error);
        log_system_call_error("function", "call");
        EXPECT_EQ(errno, error);
        const std::string then = "function: call: " + std::to_string(error) + ", ";
        EXPECT_THAT(log.messages("main"),
                    testing::ElementsAre(then + zmq_strerror(error), then + strerror(error)));
    }
}

} // namespace rtls
