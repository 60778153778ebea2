#include "rtls-tail/filter.h"
#include "rtls-tail/lines.h"
#include "rtls-tail/link_stream.h"
#include "rtls-tail/sequence_gaps.h"
#include "rtls-tail/statistics.h"
#include "tap/failure.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tail {

using bytes_t = std::vector<uint8_t>;
using rtls::recording::tap_message;
using testing::HasSubstr;

TEST(link_stream, finds_messages_however_they_are_cut)
{
    const bytes_t stream{9,    0xF5, 1,    0xF6, 0xF7, 2,    0xF7, 0xF7, 0xF6,
                         0xF5, 7,    0xF5, 0xF6, 0xF6, 0xF7, 0xF5, 0xF7};
    const std::vector<bytes_t> expected{{1, 0xF7, 2}, {0xF6}};
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        link_stream reader;
        auto found = reader.feed(rtls::bytes_view{stream}.first(cut));
        for (auto& message : reader.feed(rtls::bytes_view{stream}.subspan(cut)))
            found.push_back(message);
        EXPECT_EQ(found, expected) << cut;
    }
}

TEST(link_stream, shows_all_of_a_message_or_nothing)
{
    constexpr size_t limit = size_t{1} << 20;
    for (const size_t size : {limit, limit + 1}) {
        bytes_t stream(size + 2, 7);
        stream.front() = 0xF5;
        stream.back() = 0xF7;
        const bytes_t next{0xF5, 1, 0xF7};
        stream.insert(stream.end(), next.begin(), next.end());
        const auto found = link_stream{}.feed(stream);
        ASSERT_EQ(found.size(), size == limit ? 2u : 1u);
        EXPECT_EQ(found.front().size(), size == limit ? limit : 1u);
        EXPECT_EQ(found.back(), bytes_t{1});
    }
}

TEST(filter, what_is_no_mac_is_refused)
{
    filter wanted;
    wanted.macs = {"1A:2B"};
    wanted.settle();
    EXPECT_EQ(wanted.macs[0], "1a2b");
    wanted.macs = {"1A2"};
    EXPECT_THROW(wanted.settle(), tap::failure);
    wanted.macs = {"node"};
    EXPECT_THROW(wanted.settle(), tap::failure);
}

TEST(sequence_gaps, are_what_is_missing_and_nothing_else)
{
    const struct {
        const char* given;
        bytes_t numbers;
        sequence_gaps::counts then; // gaps, missing, repeats, late, resets
    } cases[] = {
        {"all", {7, 8, 9}, {}},
        {"a wrap", {254, 255, 0, 1}, {}},
        {"two gaps, one at the wrap", {254, 1, 3}, {2, 3, 0, 0, 0}},
        {"a repeat", {7, 7, 8}, {0, 0, 1, 0, 0}},
        {"one that was overtaken", {7, 9, 8, 10}, {1, 1, 0, 1, 0}},
        {"one that begins anew", {100, 0, 1}, {0, 0, 0, 0, 1}},
        {"the farthest ahead", {0, 128}, {1, 127, 0, 0, 0}},
        {"the farthest that is late", {20, 4, 21}, {0, 0, 0, 1, 0}},
        {"one farther", {20, 3, 4}, {0, 0, 0, 0, 1}},
    };
    for (const auto& c : cases) {
        sequence_gaps gaps;
        for (const uint8_t number : c.numbers)
            gaps.note("report/E4", number);
        const auto& found = gaps.found();
        EXPECT_EQ((std::vector{found.gaps, found.missing, found.repeats, found.late, found.resets}),
                  (std::vector{c.then.gaps, c.then.missing, c.then.repeats, c.then.late, c.then.resets}))
            << c.given;
    }
}

TEST(sequence_gaps, are_each_nodes_own)
{
    sequence_gaps gaps;
    for (const uint8_t number : {uint8_t{1}, uint8_t{2}}) {
        gaps.note("report/A", number);
        gaps.note("report/B", static_cast<uint8_t>(number + 100));
    }
    EXPECT_EQ(gaps.found().gaps + gaps.found().resets, 0u);
    gaps.note("report/A", 4);
    EXPECT_EQ(gaps.found().gaps, 1u);
    gaps.reset();
    gaps.note("report/A", 5);
    EXPECT_EQ(gaps.found().gaps, 0u);
}

// What a stranger's texts may have: C0, C1, DEL, and what is no UTF-8.
static const std::string bad_text = "\x1b[2J\xc2\x9b\x7f\xff";

static std::vector<sight> looked_at(const tap_message& message)
{
    viewer eyes;
    return eyes.look(message);
}

static tap_message management(const std::string& text)
{
    return {"management", {}, {{text.begin(), text.end()}}};
}

static tap_message event(const std::string& kind)
{
    const std::string text = R"({"event":")" + kind + R"(","bridge":")" + kind + R"("})";
    return {"event", {}, {{text.begin(), text.end()}}};
}

static bool is_harmless(const std::string& text)
{
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<uint8_t>(text[i]);
        const bool is_c1 = byte == 0xC2 && static_cast<uint8_t>(text[i + 1]) < 0xA0;
        if ((byte < 0x20 && byte != '\n') || byte == 0x7F || byte == 0xFF || is_c1)
            return false;
    }
    return true;
}

TEST(lines, have_nothing_that_moves_the_cursor)
{
    for (const tap_message& message : {management(bad_text), event("\xc2\x9b\x7f"), event(bad_text)}) {
        const auto sights = looked_at(message);
        ASSERT_EQ(sights.size(), 1u);
        EXPECT_TRUE(is_harmless(readable_line(sights[0]))) << readable_line(sights[0]);
        EXPECT_TRUE(is_harmless(json_line(sights[0]))) << json_line(sights[0]);
    }
    const tap_message other = event("\xc2\x9b");
    EXPECT_THAT(readable_line(looked_at(other)[0]), HasSubstr("\\xc2\\x9b"));
    EXPECT_THAT(json_line(looked_at(other)[0]), HasSubstr("\\u009b"));
}

TEST(statistics, have_nothing_that_moves_the_cursor)
{
    statistics all;
    const tap_message strange = event("\xc2\x9b\x7f");
    sight it = looked_at(strange)[0];
    all.note(it, 0);
    it.kind = it.bridge = bad_text; // whatever a later viewer lets through
    all.note(it, 0);
    const std::string table = all.as_table(tap::running_numbers{{}});
    EXPECT_TRUE(is_harmless(table)) << table;
    EXPECT_THAT(table, HasSubstr("event \\xc2\\x9b\\x7f"));
}

} // namespace tail
