#include "downlink/spam_filter.h"

#include "base/hex.h"
#include "registry/nodes_container.h"
#include "support/failing_new.h"
#include "support/hex_bytes.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <vector>

namespace rtls {

namespace {

const std::string mac = "E400000000000001";
const std::string other_mac = "E400000000000002";
const std::string config_a = digits("0408 05 010204 00000001000000020003FFFD") + mac;
const std::string config_b = digits("0408 05 010204 00000001000000020003FFFE") + mac;

class spam_filter_test : public testing::Test {
protected:
    spam_filter_test()
    {
        nodes_container_find_or_create_by_mac(nodes, hex(mac).data(), nullptr, 0);
        nodes_container_find_or_create_by_mac(nodes, hex(other_mac).data(), nullptr, 0);
    }

    // Whether `command` is dropped at this time (microseconds after the first second). The bytes stand in
    // a heap buffer of their exact size.
    bool is_repeat(const std::string& command, long long at_us)
    {
        const bytes_t bytes = hex(command);
        const long long us = 1'000'000'000'000'000 + at_us;
        return spam_filter(nodes, bytes.data(), bytes.size(), {us / 1'000'000, us % 1'000'000});
    }
    NODE_t* node() { return nodes_container_find_by_mac(nodes, hex(mac).data()); }

private:
    nodes_container_ptr m_nodes{static_cast<NODES_CONTAINER_t*>(nodes_container_new())};

protected:
    NODES_CONTAINER_t* nodes = m_nodes.get();
};

} // namespace

TEST_F(spam_filter_test, drops_what_repeats_within_50_ms)
{
    struct filter_step {
        std::string command;
        long long at_us;
        bool repeat;
    };
    const std::string ack_1 = "100801" + mac;
    const std::string ack_2 = "100802" + mac;
    const std::string sensor = "150801" + mac;
    const std::string longer_ack = "10080100" + mac;
    const std::string reporting_freq_6 = digits("0408 06 010204 00000001000000020003FFFD") + mac;
    const std::string to_other = digits("0408 05 010204 00000001000000020003FFFD") + other_mac;
    const struct {
        const char* given;
        std::vector<filter_step> steps;
    } cases[] = {
        {"one microsecond less than the interval", {{config_a, 0, false}, {config_a, 49'999, true}}},
        {"exactly the interval", {{config_a, 0, false}, {config_a, 50'000, false}}},
        {"the same instant", {{config_a, 0, false}, {config_a, 0, true}}},
        {"a whole second later", {{config_a, 0, false}, {config_a, 1'000'000, false}}},
        {"a second boundary in between", {{config_a, 980'000, false}, {config_a, 1'029'999, true}}},
        {"a second boundary, one microsecond more",
         {{config_a, 980'000, false}, {config_a, 1'030'000, false}}},
        {"just short of two seconds", {{config_a, 980'000, false}, {config_a, 2'010'000, false}}},
        {"the clock set back a little", {{config_a, 20'000, false}, {config_a, 19'999, false}}},
        {"the clock set back by seconds", {{config_a, 9'000'000, false}, {config_a, 20'000, false}}},
        {"the clock set back by whole seconds", {{config_a, 9'000'000, false}, {config_a, 7'000'000, false}}},
        {"a repeat after the clock was set back",
         {{config_a, 9'000'000, false}, {config_a, 0, false}, {config_a, 10'000, true}}},
        {"a steady stream",
         {{config_a, 0, false},
          {config_a, 40'000, true},
          {config_a, 80'000, true},
          {config_a, 120'000, true},
          {config_a, 170'000, false}}},
        {"another command in between", {{config_a, 0, false}, {config_b, 10, false}, {config_a, 20, false}}},
        {"sequence numbers do not count", {{ack_1, 0, false}, {ack_2, 10'000, true}, {ack_1, 20'000, true}}},
        {"byte 2 does not count even where it is no sequence number",
         {{config_a, 0, false}, {reporting_freq_6, 10'000, true}}},
        {"another type", {{ack_1, 0, false}, {sensor, 10'000, false}}},
        {"another size", {{ack_1, 0, false}, {longer_ack, 10'000, false}, {ack_1, 20'000, false}}},
        {"another node", {{config_a, 0, false}, {to_other, 10'000, false}, {config_a, 20'000, true}}},
        {"a shorter one after a longer one is compared at its own size",
         {{config_a, 0, false}, {ack_1, 1, false}, {ack_1, 2, true}, {config_a, 3, false}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        nodes_container_delete(nodes, hex(mac).data());
        nodes_container_find_or_create_by_mac(nodes, hex(mac).data(), nullptr, 0);
        nodes_container_delete(nodes, hex(other_mac).data());
        nodes_container_find_or_create_by_mac(nodes, hex(other_mac).data(), nullptr, 0);
        for (const filter_step& step : c.steps)
            EXPECT_EQ(is_repeat(step.command, step.at_us), step.repeat) << "at " << step.at_us;
    }
}

TEST_F(spam_filter_test, commands_for_unknown_nodes_are_never_repeats)
{
    const std::string stranger = "100801E4000000000000FF";
    EXPECT_FALSE(is_repeat(stranger, 0));
    EXPECT_FALSE(is_repeat(stranger, 1));
    EXPECT_EQ(nodes_container_get_size(nodes), 2u);
}

TEST_F(spam_filter_test, the_copy_grows_and_never_shrinks)
{
    is_repeat("100801" + mac, 0);
    EXPECT_EQ(node()->last_data.size(), 3u);
    EXPECT_EQ(node()->last_data.capacity(), 3u);
    is_repeat(config_a, 1);
    EXPECT_EQ(node()->last_data.size(), 18u);
    EXPECT_EQ(node()->last_data.capacity(), 18u);
    const uint8_t* const grown = node()->last_data.data();
    is_repeat("100801" + mac, 2);
    EXPECT_EQ(node()->last_data.data(), grown);
    EXPECT_EQ(node()->last_data.size(), 3u);
    EXPECT_EQ(node()->last_data.capacity(), 18u);
    EXPECT_EQ(std::memcmp(node()->last_data.data(), hex("100801").data(), 3), 0);
}

TEST_F(spam_filter_test, of_large_commands_little_is_kept_and_every_byte_counts)
{
    const auto of = [](size_t size, size_t odd_byte = 0) {
        bytes_t command(size, 0x55);
        command[0] = 0x04;
        command[1] = 0x08;
        if (odd_byte > 0)
            command[odd_byte] ^= 1;
        return to_hex(command) + mac;
    };
    long long at = 0;
    for (const size_t size : {511U, 512U, 513U, 514U, 520U, 521U, 65'536U}) {
        SCOPED_TRACE(size);
        EXPECT_FALSE(is_repeat(of(size), ++at));
        EXPECT_TRUE(is_repeat(of(size), ++at));
        EXPECT_TRUE(is_repeat(of(size, 2), ++at)) << "sequence numbers do not count";
        EXPECT_FALSE(is_repeat(of(size + 1), ++at));
        EXPECT_FALSE(is_repeat(of(size), ++at));
        for (const size_t odd : {size_t{1}, size_t{3}, size / 2, size - 2, size - 1}) {
            EXPECT_FALSE(is_repeat(of(size, odd), ++at)) << odd;
            EXPECT_FALSE(is_repeat(of(size), ++at)) << odd;
        }
        EXPECT_LE(node()->last_data.capacity(), 512U);
    }
}

TEST_F(spam_filter_test, a_repeat_moves_the_time_but_not_the_copy)
{
    is_repeat("1008AA" + mac, 0);
    EXPECT_TRUE(is_repeat("1008BB" + mac, 30'000));
    EXPECT_EQ(node()->last_data_time.tv_sec, 1'000'000'000);
    EXPECT_EQ(node()->last_data_time.tv_usec, 30'000);
    EXPECT_EQ(node()->last_data[2], 0xBB); // all that a repeat leaves behind
}

TEST_F(spam_filter_test, inputs_too_short_for_a_command_are_left_alone)
{
    for (size_t size = 0; size < 11; ++size) {
        const bytes_t bytes(size, 0xE4);
        const uint8_t nothing = 0;
        EXPECT_FALSE(spam_filter(nodes, bytes.empty() ? &nothing : bytes.data(), size, {1, 0})) << size;
    }
    EXPECT_TRUE(node()->last_data.empty());
}

// What a node was last sent stands in the registry, from which operators delete nodes.
TEST_F(spam_filter_test, waits_for_the_registry)
{
    const bytes_t command = hex(config_a);
    std::future<bool> is_repeat;
    {
        const nodes_guard guard{*nodes};
        is_repeat = std::async(std::launch::async,
                               [&] { return spam_filter(nodes, command.data(), command.size(), {}); });
        EXPECT_EQ(is_repeat.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    }
    EXPECT_FALSE(is_repeat.get());
}

TEST_F(spam_filter_test, a_copy_for_which_memory_is_short_is_reported_and_the_command_passes)
{
    if (!allocations_can_fail())
        GTEST_SKIP() << "the sanitizer owns the operators";
    is_repeat("100801" + mac, 0);
    const bytes_t longer = hex(config_a);
    log_capture log;
    fail_next_allocations(1);
    EXPECT_FALSE(spam_filter(nodes, longer.data(), longer.size(), {1'000'000'000, 1}));
    EXPECT_EQ(failures_left(), 0U);
    EXPECT_EQ(log.messages("main"), std::vector<std::string>{"spam_filter: out of memory!"});
    EXPECT_EQ(node()->last_data, hex("100801")) << "the one before stays";
}

} // namespace rtls
