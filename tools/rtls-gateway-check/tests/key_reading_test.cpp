#include "rtls-gateway-check/key_reading.h"

#include "checking.h"
#include "daemon_comparison.h"
#include "support/gateway_config.h"
#include "support/temp_file.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>

namespace rtls::check {

TEST(key_reading, values_are_what_the_daemon_makes_of_them)
{
    const struct {
        const char* key;
        const char* text;
        key_fate fate;
        const char* value;
    } cases[] = {
        {"ports/win", "70000", key_fate::taken, "4464"},
        {"ports/win", "0x1F and more", key_fate::taken, "31"},
        {"ports/win", "none", key_fate::refused, ""},
        {"ports/win_backlog", "0", key_fate::ignored, ""},
        {"ports/win_backlog", "010", key_fate::taken, "8"},
        {"ports/win_connections", "0x10", key_fate::taken, "16"},
        {"ports/win_connections_per_address", "7", key_fate::taken, "7"},
        {"ports/terminal_connections", "7 ", key_fate::refused, ""},
        {"ports/win_networks", "10.0.0.0/8,127.0.0.1", key_fate::taken, "10.0.0.0/8, 127.0.0.1"},
        {"ports/win_macs", "1", key_fate::refused, ""},
        {"debug/raw", "You", key_fate::taken, "yes"},
        {"debug/raw", "off", key_fate::ignored, ""},
        {"firmware_keep_ordered", "off", key_fate::refused, ""},
        {"http/port", "80", key_fate::taken, "80"},
        {"http/address", "*", key_fate::taken, "*"},
        {"http/address", "all", key_fate::refused, ""},
        {"ports/discovery_address", "127.0.0.1", key_fate::taken, "127.0.0.1"},
        {"firmware_urls", " a , b", key_fate::taken, "a, b"},
        {"pidfile", " as it is", key_fate::taken, " as it is"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string{c.key} + " = " + c.text);
        const key_reading reading = read_key(*find_config_key(c.key), c.text);
        EXPECT_EQ(reading.fate, c.fate);
        EXPECT_EQ(reading.value, c.value);
    }
}

TEST(key_reading, without_a_line_the_preset_holds)
{
    const zpl_file file = parse_zpl("ports\n    win_backlog = none\n");
    const effective_configuration effective{file};
    EXPECT_EQ(effective.text("ports/win_address"), "*");
    EXPECT_EQ(effective.number("ports/win_backlog"), 100);
    EXPECT_EQ(effective.text("http/address"), "127.0.0.1");
    EXPECT_EQ(effective.number("ports/win_connections"), 0);
    EXPECT_EQ(effective.line("ports/win_backlog"), 2U);
    EXPECT_EQ(effective.line("ports/win"), 1U);
    EXPECT_EQ(effective.line("debug/raw"), 0U);
}

namespace {

// Configurations with values of which many are unexpected.
class odd_configurations {
public:
    explicit odd_configurations(unsigned seed) : m_random(seed) {}

    std::string next()
    {
        gateway_config config;
        for (int changes = 1 + below(3); changes > 0; --changes) {
            const auto keys = config_keys();
            const config_key& key = keys[static_cast<size_t>(below(static_cast<int>(keys.size())))];
            if (key.section() == "curve" || key.path == "http/token")
                continue; // files: elsewhere
            if (below(10) == 0)
                config.remove(key.path);
            else
                config.set(key.path, value());
        }
        return config.text();
    }

private:
    int below(int bound) { return std::uniform_int_distribution<int>{0, bound - 1}(m_random); }
    std::string value()
    {
        static const char* const values[] = {"4001",
                                             "70000",
                                             "0",
                                             "-1",
                                             "65536",
                                             "65537",
                                             "1",
                                             "5",
                                             "6",
                                             "0x1F",
                                             "010",
                                             "12abc",
                                             "abc",
                                             "",
                                             "\"7 \"",
                                             "yes",
                                             "no",
                                             "on",
                                             "t",
                                             "*",
                                             "127.0.0.1",
                                             "10.0.0.0/8, 127.0.0.1",
                                             "10.0.0.0/33",
                                             "0012AB0000000000/24",
                                             "http://a/",
                                             ",",
                                             "# what",
                                             "9223372036854775807",
                                             "99999999999999999999",
                                             "2147483648"};
        return values[below(static_cast<int>(std::size(values)))];
    }

    std::mt19937 m_random;
};

} // namespace

TEST(key_reading, the_daemon_starts_where_the_check_says_so_and_has_these_values)
{
    const some_machine machine;
    const temp_file file{"some.conf", ""};
    odd_configurations odd{20261122};
    int refused = 0;
    for (int i = 0; i < 500; ++i) {
        const std::string text = odd.next();
        std::ofstream{file.path()} << text;
        ASSERT_EQ(difference_of_verdicts(text, file.path(), machine), "") << text;
        const findings found = check_configuration(parse_zpl(text), {.machine = &machine, .bridges = {}});
        refused += std::ranges::count(found, severity::refused, &finding::level) > 0 ? 1 : 0;
    }
    EXPECT_GT(refused, 100);
    EXPECT_LT(refused, 400);
}

} // namespace rtls::check
