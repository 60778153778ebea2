// The flat interface, as the daemon uses it, against both sinks.

#include "core/clogger.h"

#include "impl/clogger.h"
#include "support/allocation_count.h"
#include "support/broker.h"
#include "support/socket_options.h"
#include "support/syslog_capture.h"
#include "support/wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zmq.hpp>

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using logger_ptr = std::unique_ptr<tav_logger_handle, decltype(&destroy_logger)>;
using component_ptr = std::unique_ptr<tav_component_logger_handle, decltype(&destroy_component_logger)>;

logger_ptr make_logger(const char* name = "app")
{
    return {create_logger(name), destroy_logger};
}

component_ptr make_component(const logger_ptr& logger, const char* name = "main")
{
    return {create_component_logger(logger.get(), name), destroy_component_logger};
}

class clogger : public testing::Test {
protected:
    clogger() { (void)lines(); }

    // What has reached the system log since the last call.
    std::vector<syslog_capture::captured_line> lines()
    {
        EXPECT_TRUE(logger_flush(m_logger.get(), 10'000));
        return syslog_capture::take();
    }
    std::vector<std::string> texts()
    {
        EXPECT_TRUE(logger_flush(m_logger.get(), 10'000));
        return syslog_capture::take_texts();
    }

    // Connected, and the record of it is gone.
    void connect()
    {
        logger_connect(m_logger.get(), m_broker.endpoint().c_str());
        ASSERT_EQ(m_broker.next_undated(), "&app:logger DATE Connected to socket");
    }

    broker m_broker;
    logger_ptr m_logger = make_logger();
    component_ptr m_main = make_component(m_logger);
};

TEST_F(clogger, says_that_it_starts)
{
    m_main.reset();
    m_logger.reset();
    m_logger = make_logger();
    EXPECT_EQ(lines(),
              (std::vector<syslog_capture::captured_line>{{"app", 0, LOG_USER, LOG_INFO, "Starting app"}}));
    EXPECT_EQ(syslog_capture::mask(), 0x7F);
}

TEST_F(clogger, each_function_has_its_priority_and_reaches_both_sinks)
{
    connect();
    (void)lines();
    const struct {
        void (*log)(tav_component_logger, const char*, ...);
        int priority;
    } cases[] = {{logger_info, LOG_INFO}, {logger_warning, LOG_WARNING}, {logger_error, LOG_ERR}};
    for (const auto& c : cases) {
        c.log(m_main.get(), "%s %d", "text", c.priority);
        const std::string text = "text " + std::to_string(c.priority);
        EXPECT_EQ(lines(),
                  (std::vector<syslog_capture::captured_line>{{"app", 0, LOG_USER, c.priority, text}}));
        EXPECT_EQ(m_broker.next_undated(), "&app:main DATE " + text);
    }
}

TEST_F(clogger, debug_records_reach_the_broker_and_not_the_system_log)
{
    connect();
    (void)lines();
    const uint64_t queued = logger_get_counters(m_logger.get()).queued;
    logger_debug(m_main.get(), "%s", "hidden");
    logger_debug_ts(m_main.get(), {0, 5}, "%s", "hidden, too");
    EXPECT_EQ(logger_get_counters(m_logger.get()).queued, queued) << "nor take room there";
    EXPECT_EQ(m_broker.next_undated(), "&app:main DATE hidden");
    EXPECT_EQ(m_broker.next(), "&app:main 1970-01-01 00:00:00.005 hidden, too");
    EXPECT_THAT(texts(), IsEmpty());
}

TEST_F(clogger, debugging_opens_the_system_log_to_debug_records_and_dates_its_lines)
{
    (void)lines();
    m_logger->m_logger.set_debug(true);
    EXPECT_EQ(syslog_capture::mask(), 0xFF);
    logger_debug_ts(m_main.get(), {1714568822, 45}, "now %s", "seen");
    EXPECT_EQ(lines(), (std::vector<syslog_capture::captured_line>{
                           {"app", LOG_PERROR, LOG_USER, LOG_DEBUG, "2024-05-01 13:07:02.045 now seen"}}));

    m_logger->m_logger.set_debug(false);
    EXPECT_EQ(syslog_capture::mask(), 0x7F);
    logger_debug(m_main.get(), "hidden again");
    logger_info(m_main.get(), "without a date");
    EXPECT_EQ(lines(),
              (std::vector<syslog_capture::captured_line>{{"app", 0, LOG_USER, LOG_INFO, "without a date"}}));
}

TEST_F(clogger, only_the_mask_decides_what_the_system_log_gets)
{
    (void)lines();
    setlogmask(LOG_UPTO(LOG_DEBUG)); // not by the library
    EXPECT_TRUE(logger_debug_is_wanted(m_main.get()));
    logger_debug(m_main.get(), "admitted");
    EXPECT_EQ(lines(),
              (std::vector<syslog_capture::captured_line>{{"app", 0, LOG_USER, LOG_DEBUG, "admitted"}}));
    setlogmask(LOG_UPTO(LOG_WARNING));
    EXPECT_FALSE(logger_debug_is_wanted(m_main.get()));
    logger_debug(m_main.get(), "masked");
    logger_info(m_main.get(), "masked");
    logger_warning(m_main.get(), "admitted");
    EXPECT_THAT(texts(), ElementsAre("admitted"));

    m_logger->m_logger.set_debug(true);
    setlogmask(LOG_UPTO(LOG_INFO));
    EXPECT_FALSE(logger_debug_is_wanted(m_main.get()));
    logger_debug(m_main.get(), "masked in spite of the flag");
    EXPECT_THAT(texts(), IsEmpty());
}

TEST_F(clogger, debugging_shows_the_nesting_in_the_system_log)
{
    const tav::libs::core::logger& logger = m_logger->m_logger;
    m_logger->m_logger.set_debug(true);
    const auto scope = logger.enter_scope("scope");
    (void)lines();
    logger.info("text").date_time({0, 5});
    m_logger->m_logger.set_debug(false);
    logger.info("text").date_time({0, 5});
    EXPECT_THAT(texts(), ElementsAre("1970-01-01 00:00:00.005     | text", "text"));
}

TEST_F(clogger, percent_signs_in_a_message_stay_as_they_are)
{
    connect();
    (void)lines();
    for (const std::string text : {"%1%", "100%", "%", "%%", "%s%n", "%1$s %|2|"}) {
        logger_error(m_main.get(), "%s", text.c_str());
        EXPECT_EQ(m_broker.next_undated(), "&app:main DATE " + text);
        EXPECT_THAT(texts(), ElementsAre(text));
    }
    logger_error(m_main.get(), "100%%");
    EXPECT_EQ(m_broker.next_undated(), "&app:main DATE 100%");
}

TEST_F(clogger, messages_have_no_length_limit)
{
    connect();
    for (const size_t length : {0U, 1U, 255U, 1023U, 1024U, 1025U, 4096U, 65'536U, 1'000'000U}) {
        const std::string text(length, 'x');
        logger_info(m_main.get(), "%s", text.c_str());
        EXPECT_TRUE(m_broker.next_undated() == "&app:main DATE " + text) << length << " characters";
    }
}

TEST_F(clogger, an_argument_that_cannot_be_converted_leaves_an_empty_message)
{
    (void)lines();
    const wchar_t not_in_this_locale[] = {0x263A, 0};
    logger_info(m_main.get(), "%ls", not_in_this_locale);
    EXPECT_THAT(texts(), ElementsAre(""));
}

TEST_F(clogger, the_prefix_keeps_a_padded_component_name)
{
    connect();
    const component_ptr raw = make_component(m_logger, "raw      ");
    logger_info(raw.get(), "00");
    EXPECT_EQ(m_broker.next_undated(), "&app:raw       DATE 00"); // 7 blanks, the last one the prefix's
}

TEST_F(clogger, records_before_the_connect_are_lost_to_the_broker)
{
    logger_info(m_main.get(), "early");
    connect();
    logger_info(m_main.get(), "late");
    EXPECT_EQ(m_broker.next_undated(), "&app:main DATE late");
    EXPECT_THAT(texts(), ElementsAre("early", "late"));
}

TEST_F(clogger, two_brokers_get_the_records_in_turn)
{
    broker second;
    connect();
    logger_connect(m_logger.get(), second.endpoint().c_str());
    for (const char* text : {"one", "two", "three"})
        logger_info(m_main.get(), "%s", text);
    EXPECT_THAT((std::vector{m_broker.next_undated(), m_broker.next_undated(), second.next_undated(),
                             second.next_undated()}),
                testing::UnorderedElementsAre("&app:logger DATE Connected to socket", "&app:main DATE one",
                                              "&app:main DATE two", "&app:main DATE three"));
    EXPECT_TRUE(m_broker.is_empty());
    EXPECT_TRUE(second.is_empty());
}

TEST_F(clogger, nothing_is_published_while_writing_to_the_socket_is_off)
{
    connect();
    EXPECT_TRUE(m_logger->m_logger.is_writing_to_socket());
    m_logger->m_logger.set_writing_to_socket(false);
    (void)lines();
    logger_error(m_main.get(), "to the system log alone");
    m_logger->m_logger.set_writing_to_socket(true);
    logger_error(m_main.get(), "to both");
    EXPECT_EQ(m_broker.next_undated(), "&app:main DATE to both");
    EXPECT_THAT(texts(), ElementsAre("to the system log alone", "to both"));
}

TEST_F(clogger, a_bad_address_is_an_error_record_and_changes_nothing)
{
    const struct {
        const char* address;
        const char* then;
    } cases[] = {
        {"", "logger_connect: zmq_connect: 22, Invalid argument"},
        {"nonsense", "logger_connect: zmq_connect: 22, Invalid argument"},
        {"tcp://", "logger_connect: zmq_connect: 22, Invalid argument"},
        {"nosuch://127.0.0.1:1", "logger_connect: zmq_connect: 93, Protocol not supported"},
    };
    (void)lines();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.address);
        logger_connect(m_logger.get(), c.address);
        EXPECT_EQ(lines(),
                  (std::vector<syslog_capture::captured_line>{{"app", 0, LOG_USER, LOG_ERR, c.then}}));
        EXPECT_FALSE(logger_debug_is_wanted(m_main.get()));
    }
    connect();
}

TEST_F(clogger, debug_records_are_wanted_while_somebody_hears_them)
{
    tav::libs::core::logger& sinks = m_logger->m_logger;
    EXPECT_FALSE(logger_debug_is_wanted(m_main.get()));
    sinks.set_debug(true);
    EXPECT_TRUE(logger_debug_is_wanted(m_main.get()));
    sinks.set_debug(false);
    EXPECT_FALSE(logger_debug_is_wanted(m_main.get()));
    connect();
    EXPECT_TRUE(logger_debug_is_wanted(m_main.get()));
    sinks.set_writing_to_socket(false);
    EXPECT_FALSE(logger_debug_is_wanted(m_main.get()));
    sinks.set_debug(true);
    EXPECT_TRUE(logger_debug_is_wanted(m_main.get()));
}

TEST_F(clogger, a_debug_record_that_nobody_hears_costs_no_allocation)
{
    const std::string text(1000, 'x');
    const size_t before = allocations_of_this_thread();
    for (int i = 0; i < 1000; ++i) {
        logger_debug(m_main.get(), "%s %d", text.c_str(), i);
        logger_debug_ts(m_main.get(), {1, 2}, "%s %d", text.c_str(), i);
    }
    EXPECT_EQ(allocations_of_this_thread(), before);
    logger_info(m_main.get(), "%s", text.c_str());
    EXPECT_GT(allocations_of_this_thread(), before) << "the counter counts";
}

TEST_F(clogger, a_broker_in_the_place_of_another_kind_of_server_gets_the_records)
{
    EXPECT_STREQ(logger_get_broker_state(m_logger.get()).last_reason, "");
    zmq::context_t context;
    zmq::socket_t wrong(context, zmq::socket_type::rep);
    wrong.set(zmq::sockopt::linger, 0);
    wrong.bind("tcp://127.0.0.1:*");
    const std::string endpoint = wrong.get(zmq::sockopt::last_endpoint);
    logger_connect(m_logger.get(), endpoint.c_str());
    const auto tend_until = [&](auto condition) {
        return rtls::wait_until([&] {
            logger_tend_broker(m_logger.get());
            return condition(logger_get_broker_state(m_logger.get()));
        });
    };
    EXPECT_TRUE(tend_until([&](const tav_link_state& link) {
        logger_debug(m_main.get(), "to the wrong one");
        return link.failures >= 2 && m_logger->m_logger.unpublished() >= 1; // lost with it
    }));
    EXPECT_FALSE(logger_get_broker_state(m_logger.get()).is_up);
    wrong.close();
    context.close();

    broker right(endpoint);
    EXPECT_TRUE(tend_until([](const tav_link_state& link) { return link.is_up; }));
    logger_info(m_main.get(), "to the right one");
    std::string record = right.next_undated();
    while (record != "&app:main DATE to the right one" && record.starts_with("&app:"))
        record = right.next_undated(); // what had waited comes first
    EXPECT_EQ(record, "&app:main DATE to the right one");
    const auto said = texts();
    EXPECT_EQ(std::count_if(said.begin(), said.end(),
                            [](const std::string& line) {
                                return line.starts_with("debug broker: the peer ") &&
                                       line.ends_with(", connecting again");
                            }),
              1);
}

TEST_F(clogger, has_no_link_without_a_logger_or_a_broker)
{
    logger_tend_broker(nullptr);
    logger_tend_broker(m_logger.get());
    EXPECT_EQ(logger_get_broker_state(nullptr).connections, 0U);
    EXPECT_FALSE(logger_get_broker_state(m_logger.get()).is_up);
}

TEST_F(clogger, a_full_queue_drops_records_without_a_word_and_never_blocks)
{
    constexpr int queue_length = 1000; // the library's default
    const std::string endpoint = broker().endpoint();
    logger_connect(m_logger.get(), endpoint.c_str());
    for (int i = 1; i < 2 * queue_length; ++i) {
        errno = ERANGE;
        logger_info(m_main.get(), "%d", i);
        ASSERT_EQ(errno, ERANGE) << "callers report the errno of what failed, not ours";
    }
    EXPECT_EQ(logger_get_counters(m_logger.get()).unpublished, size_t{queue_length});

    broker late(endpoint);
    EXPECT_EQ(late.next_undated(), "&app:logger DATE Connected to socket");
    for (int i = 1; i < queue_length; ++i)
        ASSERT_EQ(late.next_undated(), "&app:main DATE " + std::to_string(i));
    logger_info(m_main.get(), "room again");
    EXPECT_EQ(late.next_undated(), "&app:main DATE room again");
}

TEST_F(clogger, null_arguments_do_nothing)
{
    (void)lines();
    logger_debug(nullptr, "%d", 1);
    logger_debug_ts(nullptr, {0, 0}, "%d", 1);
    logger_info(nullptr, "%d", 1);
    logger_warning(nullptr, "%d", 1);
    logger_error(nullptr, "%d", 1);
    EXPECT_FALSE(logger_debug_is_wanted(nullptr));
    logger_connect(nullptr, "tcp://127.0.0.1:1");
    logger_connect(m_logger.get(), nullptr);
    EXPECT_EQ(create_logger(nullptr), nullptr);
    EXPECT_EQ(create_component_logger(nullptr, "main"), nullptr);
    EXPECT_EQ(create_component_logger(m_logger.get(), nullptr), nullptr);
    destroy_component_logger(nullptr);
    destroy_logger(nullptr);
    EXPECT_THAT(texts(), IsEmpty());
}

TEST_F(clogger, the_identity_outlives_the_name_given)
{
    m_main.reset();
    m_logger.reset();
    auto name = std::make_unique<std::string>("an-application-with-a-name-on-the-heap");
    const std::string identity = *name;
    m_logger = make_logger(name->c_str());
    name->assign(name->size(), '?');
    name.reset();
    m_main = make_component(m_logger);
    (void)lines();
    for (int i = 0; i < 10; ++i)
        logger_info(m_main.get(), "%d", i);
    for (const auto& line : lines())
        EXPECT_EQ(line.identity, identity);
}

TEST_F(clogger, destroying_closes_the_system_log_and_delivers_the_last_records)
{
    connect();
    for (int i = 0; i < 500; ++i)
        logger_info(m_main.get(), "%d", i);
    m_main.reset();
    m_logger.reset();
    EXPECT_FALSE(syslog_capture::is_open());
    for (int i = 0; i < 500; ++i)
        ASSERT_EQ(m_broker.next_undated(), "&app:main DATE " + std::to_string(i));
    EXPECT_TRUE(m_broker.is_empty());
}

TEST_F(clogger, the_last_records_have_five_seconds_to_leave)
{
    EXPECT_EQ(socket_options::last_value(ZMQ_LINGER), 5000);
}

// And one that does not answer is asked again soon: the system's own patience is two minutes.
TEST_F(clogger, a_broker_that_vanishes_is_noticed)
{
    EXPECT_EQ(socket_options::last_value(ZMQ_TCP_KEEPALIVE), 1);
    EXPECT_EQ(socket_options::last_value(ZMQ_TCP_KEEPALIVE_IDLE), 5);
    EXPECT_EQ(socket_options::last_value(ZMQ_TCP_KEEPALIVE_INTVL), 2);
    EXPECT_EQ(socket_options::last_value(ZMQ_TCP_KEEPALIVE_CNT), 4);
    EXPECT_EQ(socket_options::last_value(ZMQ_CONNECT_TIMEOUT), 2000);
    EXPECT_EQ(socket_options::last_value(ZMQ_TCP_MAXRT), std::nullopt) << "who stands is not cut off";
}

// Short memory while a logger is made: no logger, and a system log that keeps no pointer into it.
class short_memory : public testing::Test {
protected:
    void SetUp() override
    {
        if (!allocations_can_fail())
            GTEST_SKIP() << "the sanitizer owns the operators";
    }

    // Long, so that its copies need memory.
    const std::string m_name = "an-application-with-a-name-on-the-heap";
};

TEST_F(short_memory, before_its_socket_exists_leaves_no_logger)
{
    for (size_t allocation = 0; allocation < 3; ++allocation) {
        fail_allocation_after(allocation);
        EXPECT_EQ(create_logger(m_name.c_str()), nullptr) << "allocation " << allocation;
        EXPECT_FALSE(cancel_failing_allocation());
        EXPECT_FALSE(syslog_capture::is_open());
    }
}

TEST_F(short_memory, after_its_socket_exists_leaves_no_logger_and_no_dangling_identity)
{
    size_t failed = 0;
    for (bool was_short = true; was_short; failed += was_short) {
        socket_options::on_next_linger([failed] { fail_allocation_after(failed); });
        const logger_ptr logger = make_logger(m_name.c_str());
        was_short = !cancel_failing_allocation();
        EXPECT_EQ(logger == nullptr, was_short) << "allocation " << failed;
        EXPECT_NE(syslog_capture::is_open(), was_short) << "allocation " << failed;
    }
    EXPECT_GT(failed, 0U);
    EXPECT_FALSE(syslog_capture::is_open());
}

TEST_F(short_memory, in_a_connect_is_an_error_record)
{
    const broker reader;
    const std::string address = reader.endpoint() + std::string(100, ' '); // needs memory
    const logger_ptr logger = make_logger(m_name.c_str());
    EXPECT_TRUE(logger_flush(logger.get(), 10'000));
    (void)syslog_capture::take();
    fail_allocation_after(0);
    logger_connect(logger.get(), address.c_str());
    EXPECT_FALSE(cancel_failing_allocation());
    EXPECT_TRUE(logger_flush(logger.get(), 10'000));
    EXPECT_THAT(syslog_capture::take_texts(), ElementsAre("logger_connect: out of memory!"));
}

TEST_F(short_memory, loses_what_is_to_be_said_of_a_broker_that_is_none)
{
    zmq::context_t context;
    zmq::socket_t wrong(context, zmq::socket_type::rep);
    wrong.bind("tcp://127.0.0.1:*");
    const logger_ptr logger = make_logger(m_name.c_str());
    logger_connect(logger.get(), wrong.get(zmq::sockopt::last_endpoint).c_str());
    EXPECT_TRUE(rtls::wait_until([&] {
        fail_allocation_after(0);
        logger_tend_broker(logger.get());
        (void)cancel_failing_allocation();
        return logger_get_broker_state(logger.get()).failures != 0;
    }));
    EXPECT_EQ(logger_get_counters(logger.get()).unstored, 1U);
}

struct record_case {
    const char* name;
    void (*log)(tav_component_logger logger, const char* text);
};
constexpr record_case record_cases[] = {
    {"error", [](tav_component_logger logger, const char* text) { logger_error(logger, "%s", text); }},
    {"warning", [](tav_component_logger logger, const char* text) { logger_warning(logger, "%s", text); }},
    {"info", [](tav_component_logger logger, const char* text) { logger_info(logger, "%s", text); }},
    {"debug", [](tav_component_logger logger, const char* text) { logger_debug(logger, "%s", text); }},
    {"debug_ts",
     [](tav_component_logger logger, const char* text) {
         logger_debug_ts(logger, {1, 2}, "%s", text);
     }},
};

TEST_F(short_memory, loses_the_record_and_the_system_log_says_so)
{
    const std::string text(100, 'x'); // needs memory
    const logger_ptr logger = make_logger(m_name.c_str());
    const component_ptr component = make_component(logger);
    EXPECT_TRUE(logger_flush(logger.get(), 10'000));
    (void)syslog_capture::take();
    setlogmask(LOG_UPTO(LOG_DEBUG));
    uint64_t lost = 0;
    for (const auto& c : record_cases) {
        size_t allocation = 0;
        for (bool was_short = true; was_short; ++allocation) {
            SCOPED_TRACE(testing::Message() << c.name << ", allocation " << allocation);
            fail_allocation_after(allocation);
            errno = ENOENT;
            c.log(component.get(), text.c_str());
            EXPECT_EQ(errno, ENOENT);
            was_short = !cancel_failing_allocation();
            lost += was_short ? 1 : 0;
            EXPECT_EQ(logger_get_counters(logger.get()).unstored, lost);
            EXPECT_TRUE(logger_flush(logger.get(), 10'000));
            EXPECT_THAT(syslog_capture::take_texts(),
                        ElementsAre(was_short ? "Log lines lost as memory was short: 1" : text));
        }
        EXPECT_GT(allocation, 1U) << c.name;
    }
    EXPECT_EQ(logger_get_counters(logger.get()).unpublished, 0U) << "there is no broker";
}

TEST_F(short_memory, loses_a_record_for_the_broker_alone_without_a_word)
{
    broker reader;
    const logger_ptr logger = make_logger(m_name.c_str());
    const component_ptr component = make_component(logger);
    logger_connect(logger.get(), reader.endpoint().c_str());
    EXPECT_TRUE(logger_flush(logger.get(), 10'000));
    (void)syslog_capture::take();
    fail_allocation_after(0);
    logger_debug(component.get(), "short"); // but not with date and prefix
    EXPECT_FALSE(cancel_failing_allocation());
    EXPECT_EQ(logger_get_counters(logger.get()).unpublished, 1U);
    EXPECT_EQ(logger_get_counters(logger.get()).unstored, 0U) << "it was to be no line";
    EXPECT_TRUE(logger_flush(logger.get(), 10'000));
    EXPECT_THAT(syslog_capture::take_texts(), IsEmpty());
}

TEST_F(clogger, threads_log_at_once_and_records_stay_whole)
{
    constexpr size_t threads_number = 4;
    constexpr int records_each = 200;
    const auto text_of = [](size_t thread, int record) {
        return "thread " + std::to_string(thread) + " record " + std::to_string(record) + ".";
    };
    connect();
    (void)lines();
    std::vector<std::thread> threads;
    threads.reserve(threads_number);
    for (size_t thread = 0; thread < threads_number; ++thread)
        threads.emplace_back([&, thread] {
            for (int i = 0; i < records_each; ++i)
                (i % 2 == 0 ? logger_info : logger_debug)(m_main.get(), "%s", text_of(thread, i).c_str());
        });
    for (auto& thread : threads)
        thread.join();
    std::vector<int> next(threads_number, 0); // each thread's records keep their order
    for (size_t i = 0; i < threads_number * records_each; ++i) {
        const std::string record = m_broker.next_undated();
        size_t thread = 0;
        while (thread < threads_number && record != "&app:main DATE " + text_of(thread, next.at(thread)))
            ++thread;
        ASSERT_LT(thread, threads_number) << record;
        ++next[thread];
    }
    EXPECT_EQ(lines().size(), threads_number * records_each / 2);
}

} // namespace
