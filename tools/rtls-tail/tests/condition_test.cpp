#include "rtls-tail/condition.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace tail {

using nlohmann::ordered_json;
using testing::HasSubstr;

static const ordered_json line = ordered_json::parse(R"({
    "clock_ns": 1700000000251500000, "topic": "link/in/E45E510000000100", "number": 7, "way": "up", "connection": 42,
    "message": {"direction": "up", "kind": "wrap_ts", "seqNo": 3, "ack_requested": true, "direct_mask": false, "pos_Z": -250,
        "share": 0.5, "text": "it's \"\\", "message": {"kind": "heartbeat", "long_addr": "02ab34cd56001a2b"},
        "requesters": [{"mac": "02ab34cd5600", "lqi": 10}, {"mac": "02ab34cd5601", "lqi": 200}], "nobody": []}})");

static bool holds(const std::string& text)
{
    return parse_condition(text)(line);
}

static std::string refusal(const std::string& text)
{
    try {
        parse_condition(text);
    } catch (const condition_error& why) {
        return why.what();
    }
    return "";
}

TEST(condition, compares_numbers)
{
    for (const char* text : {"number == 7", "number != 8", "number<8", "number <= 7", "number > -1",
                             "number >= 7.0", "pos_Z == -250", "pos_Z < -249.5", "number == 0x7",
                             "share == 0.5", "share < 1", "clock_ns == 1700000000251500000", "seqNo > 2e0"})
        EXPECT_TRUE(holds(text)) << text;
    for (const char* text : {"number != 7", "number == 8", "number < 7", "number > 7", "number <= 6",
                             "number >= 8", "clock_ns == 1700000000251500001", "share > 0.5"})
        EXPECT_FALSE(holds(text)) << text;
}

TEST(condition, compares_texts_and_flags)
{
    for (const char* text :
         {R"(way == "up")", "way == 'UP'", "topic == 'LINK/in/e45e510000000100'", "way != 'down'",
          "way > 'UA'", R"(text == 'it\'s "\\')", R"(text == "it's \"\\")", "ack_requested == true",
          "direct_mask == false", "direct_mask != true", "message.message.long_addr >= '02AB'"})
        EXPECT_TRUE(holds(text)) << text;
    for (const char* text : {"way == ''", "way == 'u'", "ack_requested == false", "ack_requested != true"})
        EXPECT_FALSE(holds(text)) << text;
}

TEST(condition, values_of_another_kind_have_no_order)
{
    for (const char* text :
         {"way == 1", "number == '7'", "number < 'z'", "number >= true", "ack_requested == 1",
          "message == 'wrap_ts'", "message < 5", "nobody == 0", "nothing == 0", "nothing != 0"})
        EXPECT_FALSE(holds(text)) << text;
    EXPECT_TRUE(holds("way != 1")) << "it is there, and is not 1";
}

TEST(condition, a_name_is_looked_for_within_messages_and_lists)
{
    for (const char* text :
         {"kind == 'wrap_ts'", "kind == 'heartbeat'", "message.kind == 'heartbeat'",
          "message.message.kind == 'heartbeat'", "long_addr == '02ab34cd56001a2b'", "lqi > 100", "lqi < 100",
          "requesters.lqi == 200", "message.requesters.lqi == 10", "lqi != 11"})
        EXPECT_TRUE(holds(text)) << text;
    for (const char* text :
         {"message.message.kind == 'wrap_ts'", "requesters.kind == 'heartbeat'", "kind != 'heartbeat'",
          "lqi != 10", "requesters.mac.lqi == 10", "topic.kind == 'wrap_ts'"})
        EXPECT_FALSE(holds(text)) << text;
}

TEST(condition, a_name_alone_is_there_and_not_false)
{
    for (const char* text :
         {"ack_requested", "message.requesters", "lqi", "number", "message.message", "not bridge"})
        EXPECT_TRUE(holds(text)) << text;
    for (const char* text : {"direct_mask", "nobody", "bridge", "message.number", "not number"})
        EXPECT_FALSE(holds(text)) << text;
}

TEST(condition, not_binds_closer_than_and_that_closer_than_or)
{
    const struct {
        const char* text;
        bool then;
    } cases[] = {
        {"seqNo == 3 or number == 0 and number == 1", true},
        {"(seqNo == 3 or number == 0) and number == 1", false},
        {"number == 0 and number == 1 or seqNo == 3", true},
        {"not number == 0 and seqNo == 3", true},
        {"not (number == 7 and seqNo == 3)", false},
        {"not number == 7 or seqNo == 3", true},
        {"not not number == 7", true},
        {"((number) and (seqNo))and(way)", true},
        {"number and seqNo and nothing", false},
        {"nothing or nobody or number", true},
    };
    for (const auto& c : cases)
        EXPECT_EQ(holds(c.text), c.then) << c.text;
}

TEST(condition, what_is_none_is_refused_with_its_place)
{
    const struct {
        const char* text;
        const char* then;
    } cases[] = {
        {"", "character 1: the name of a field, \"not\" or \"(\" is wanted"},
        {"  ", "character 3: the name of a field"},
        {"number <", "character 9: a number, a text in quotes, true or false is wanted"},
        {"number < way", "character 10: a number, a text in quotes"},
        {"7 < number", "character 1: the name of a field"},
        {"number == 7 and", "character 16: the name of a field"},
        {"number == 7 and or way", "character 17: the name of a field"},
        {"true", "character 1: the name of a field"},
        {"(number == 7", "character 13: \"and\", \"or\" or \")\" is wanted"},
        {"number == 7)", "character 12: \"and\", \"or\" or the end is wanted"},
        {"number 7", "character 8: \"and\", \"or\" or the end is wanted"},
        {"number = 7", "character 8: this means nothing here"},
        {"number == 7 && way", "character 13: this means nothing here"},
        {"way == 'up", "character 8: the quotes of this text are not closed"},
        {"way == 'up\\'", "character 8: the quotes of this text are not closed"},
        {"way == '\\", "character 8: the quotes of this text are not closed"},
        {"way == '\xc3\xa4' !", "character 12: this means nothing here"},
        {"sw_version == 0102a0b0", "character 15: \"0102a0b0\" is no number; texts stand in quotes"},
        {"number == 0x", "character 11: \"0x\" is no number"},
        {"number == 0x1ffffffffffffffff", "character 11: \"0x1ffffffffffffffff\" is no number"},
        {"number == -", "character 11: \"-\" is no number"},
        {"message. == 1", "character 1: \"message.\" is no name: a dot stands between two"},
        {"message..kind", "character 1: \"message..kind\" is no name"},
    };
    for (const auto& c : cases)
        EXPECT_THAT(refusal(c.text), HasSubstr(c.then)) << c.text;
}

TEST(condition, has_bounds)
{
    const auto nested = [](size_t depth) {
        return std::string(depth, '(') + "number" + std::string(depth, ')');
    };
    EXPECT_TRUE(holds(nested(99)));
    EXPECT_EQ(refusal(nested(100)), "character 101: too much stands within each other");
    EXPECT_THAT(refusal(nested(1'000'000)), HasSubstr("too much"));
    std::string many = "number";
    for (int i = 0; i < 10'000; ++i)
        many += " and number";
    EXPECT_TRUE(holds(many));
}

TEST(condition, looks_only_so_deep_into_a_strangers_line)
{
    std::string text;
    for (int i = 0; i < 20'000; ++i)
        text += R"([{"a":)";
    text += "1";
    for (int i = 0; i < 20'000; ++i)
        text += "}]";
    const auto deep = ordered_json::parse(R"({"b":1,"a":)" + text + "}", nullptr, false);
    EXPECT_FALSE(parse_condition("a == 2")(deep));
    EXPECT_TRUE(parse_condition("b")(deep));
}

TEST(condition, small_letters_are_of_ascii_alone)
{
    EXPECT_EQ(lower("AZ[`az\xc3\x84"), "az[`az\xc3\x84");
}

} // namespace tail
