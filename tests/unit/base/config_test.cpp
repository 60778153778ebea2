#include "base/config.h"

#include "base/czmq_ptr.h"
#include "support/log_capture.h"
#include "support/temp_file.h"
#include "support/texts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <filesystem>
#include <string>

namespace rtls {

using testing::IsEmpty;

// CZMQ forgets the file that it cannot parse. The daemon then ends, so it is left at that.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:zfile_new\n";
}

namespace {

// What an item `given` as its whole text reads as.
struct tree {
    explicit tree(const std::string& value)
        : root(zconfig_str_load(("section\n    item =" + value + "\n").c_str()))
    {
    }
    zconfig_ptr root;
};

constexpr char path[] = "section/item";

class config : public testing::Test {
protected:
    texts_t logged() { return m_log.messages("main"); }
    log_capture m_log;
};

TEST_F(config, a_file_becomes_a_tree)
{
    const temp_file file("some.conf", "pidfile = /tmp/a.pid\nports\n    win = 4001\n    empty =\n");
    zconfig_t* root = config_new(file.path());
    ASSERT_NE(root, nullptr);
    const char* text = nullptr;
    EXPECT_TRUE(config_value_get(root, "pidfile", &text));
    EXPECT_STREQ(text, "/tmp/a.pid");
    EXPECT_TRUE(config_value_get(root, "/ports/win", &text));
    EXPECT_STREQ(text, "4001");
    EXPECT_TRUE(config_value_get(root, "ports/empty", &text));
    EXPECT_STREQ(text, "");
    EXPECT_TRUE(config_value_get(root, "ports", &text)) << "a section is an item without a value";
    EXPECT_STREQ(text, "");
    config_destroy(&root);
    EXPECT_EQ(root, nullptr);
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(config, files_without_items_give_an_empty_tree)
{
    const temp_file empty("empty.conf", "");
    for (const char* file : {empty.path(), "/dev/null", "/tmp"}) {
        SCOPED_TRACE(file);
        zconfig_t* root = config_new(file);
        EXPECT_NE(root, nullptr);
        config_destroy(&root);
    }
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(config, a_file_that_cannot_be_read_or_parsed_gives_none)
{
    const temp_file missing("missing.conf");
    const temp_file two_blanks("two-blanks.conf", "ports\n  win = 4001\n");
    const temp_file tab("tab.conf", "ports\n\twin = 4001\n");
    for (const char* file : {missing.path(), two_blanks.path(), tab.path()}) {
        SCOPED_TRACE(file);
        EXPECT_EQ(config_new(file), nullptr);
        EXPECT_EQ(logged(), texts_t{"Error opening configuration file!"});
    }
}

TEST_F(config, a_missing_item_is_named)
{
    const tree given("1");
    const char* text = "";
    int64_t number = 5;
    uint16_t small = 6;
    bool flag = true;
    EXPECT_FALSE(config_value_get(given.root.get(), "section/other", &text));
    EXPECT_EQ(text, nullptr);
    EXPECT_FALSE(config_value_long_get(given.root.get(), "section/other", &number));
    EXPECT_FALSE(config_value_uint16_t_get(given.root.get(), "section/other", &small));
    EXPECT_FALSE(config_value_bool_get(given.root.get(), "section/other", &flag));
    EXPECT_EQ(logged(), texts_t(4, "Parameter \"section/other\" is not found in the configuration file!"));
    EXPECT_EQ(number, 5);
    EXPECT_EQ(small, 6);
    EXPECT_TRUE(flag);
}

TEST_F(config, a_flat_item_with_a_slash_in_its_name_is_not_found)
{
    const zconfig_ptr root(zconfig_str_load("debug/raw = yes\n"));
    bool flag = false;
    EXPECT_FALSE(config_value_bool_get(root.get(), "debug/raw", &flag));
    EXPECT_EQ(logged(), texts_t{"Parameter \"debug/raw\" is not found in the configuration file!"});
}

TEST_F(config, numbers_are_read_as_strtol_does)
{
    const struct {
        const char* value;
        int64_t then;
        uint16_t then_low;
    } cases[] = {
        {" 42", 42, 42},
        {" 0x1F", 31, 31},
        {" 0X1f", 31, 31},
        {" 010", 8, 8},
        {" \"  42\"", 42, 42},
        {" 42 and more", 42, 42},
        {" 12abc", 12, 12},
        {" 0x", 0, 0},
        {" 09", 0, 0},
        {" 0", 0, 0},
        {" +7", 7, 7},
        {" -1", -1, 65535},
        {" 65535", 65535, 65535},
        {" 65536", 65536, 0},
        {" 70000", 70000, 4464},
        {" 9223372036854775807", LONG_MAX, 65535},
        {" -9223372036854775808", LONG_MIN, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        const tree given(c.value);
        int64_t number = 5;
        uint16_t small = 6;
        EXPECT_TRUE(config_value_long_get(given.root.get(), path, &number));
        EXPECT_EQ(number, c.then);
        EXPECT_TRUE(config_value_uint16_t_get(given.root.get(), path, &small));
        EXPECT_EQ(small, c.then_low);
    }
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(config, what_is_no_number_is_logged_once)
{
    const std::string no_digits = "config_value_long_get: strtol: No digits were found";
    const std::string out_of_range = "config_value_long_get: strtol: 34, Numerical result out of range";
    const struct {
        const char* value;
        int64_t written; // in spite of the failure
        const std::string& then;
    } cases[] = {
        {"", 0, no_digits},
        {" abc", 0, no_digits},
        {" -", 0, no_digits},
        {" 99999999999999999999", LONG_MAX, out_of_range},
        {" -99999999999999999999", LONG_MIN, out_of_range},
        {" 0xFFFFFFFFFFFFFFFF and more", LONG_MAX, out_of_range},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        const tree given(c.value);
        int64_t number = 5;
        uint16_t small = 6;
        EXPECT_FALSE(config_value_long_get(given.root.get(), path, &number));
        EXPECT_EQ(logged(), texts_t{c.then});
        EXPECT_EQ(number, c.written);
        EXPECT_FALSE(config_value_uint16_t_get(given.root.get(), path, &small));
        EXPECT_EQ(logged(), texts_t{c.then});
        EXPECT_EQ(small, 6);
    }
}

TEST_F(config, flags_go_by_their_first_character)
{
    const struct {
        const char* values;
        bool then;
    } cases[] = {{"yY1tT", true}, {"nN0fF", false}};
    for (const auto& c : cases)
        for (const char* value = c.values; *value != '\0'; ++value)
            for (const char* rest : {"", "o please", "1"}) {
                SCOPED_TRACE(std::string(1, *value) + rest);
                const tree given(" " + std::string(1, *value) + rest);
                bool flag = !c.then;
                EXPECT_TRUE(config_value_bool_get(given.root.get(), path, &flag));
                EXPECT_EQ(flag, c.then);
            }
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(config, what_is_no_flag_fails_without_a_word)
{
    for (const char* value : {"", " on", " off", " 2", " -1", " \" yes\"", " \"\""})
        for (bool flag : {true, false}) {
            SCOPED_TRACE(value);
            const tree given(value);
            const bool before = flag;
            EXPECT_FALSE(config_value_bool_get(given.root.get(), path, &flag));
            EXPECT_EQ(flag, before);
        }
    EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(config, the_sample_has_every_key)
{
    const auto source_root =
        std::filesystem::path(__FILE__).parent_path().parent_path().parent_path().parent_path();
    zconfig_t* root = config_new((source_root / "config/rtls-gateway.conf").c_str());
    ASSERT_NE(root, nullptr);
    const struct {
        const char* key;
        const char* then;
    } cases[] = {
        {"pidfile", "/tmp/rtls-gateway.pid"},
        {"debug_broker_address", "missing"}, // shown only: one that is not there would hold up each stop
        {"firmware_files", "5"},
        {"ports/terminal", "4000"},
        {"ports/win", "4001"},
        {"ports/discovery", "4002"},
        {"ports/win_backlog", "1024"},
        {"ports/terminal_address", "127.0.0.1"},
        {"ports/terminal_connections", "32"},
        {"pub_sub_proxy/address", "127.0.0.1"},
        {"pub_sub_proxy/port", "5555"},
        {"pub_sub_proxy/input_port", "5556"},
        {"message_handler/address", "127.0.0.1"},
        {"message_handler/port", "5557"},
        {"debug/raw", "no"},
        {"debug/parsing", "no"},
        {"debug/terminal", "no"},
        {"debug/win", "no"},
        {"debug/discovery", "no"},
        {"debug/develop", "no"},
        {"debug/ul_tdoa", "no"},
    };
    for (const auto& c : cases)
        EXPECT_STREQ(zconfig_get(root, c.key, "missing"), c.then) << c.key;
    config_destroy(&root);
}

} // namespace

} // namespace rtls
