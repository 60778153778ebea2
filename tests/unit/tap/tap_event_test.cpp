#include "tap/tap_event.h"

#include "support/hex_bytes.h"

#include <gtest/gtest.h>

#include <string>

namespace rtls {

static std::string text_of(const tap_event& event)
{
    return {event.bytes().begin(), event.bytes().end()};
}

TEST(tap_event, is_a_whole_object_at_any_time)
{
    tap_event event{"bridge_closed"};
    EXPECT_EQ(text_of(event), R"({"event":"bridge_closed"})");
    event.hex("bridge", hex("02 AB 34 CD 56 00 1A 2B"));
    EXPECT_EQ(text_of(event), R"({"event":"bridge_closed","bridge":"02AB34CD56001A2B"})");
    event.number("lost", UINT64_MAX).number("none", 0).text("cause", "peer");
    EXPECT_EQ(text_of(event), R"({"event":"bridge_closed","bridge":"02AB34CD56001A2B",)"
                              R"("lost":18446744073709551615,"none":0,"cause":"peer"})");
}

TEST(tap_event, escapes_what_is_no_plain_text)
{
    EXPECT_EQ(text_of(tap_event{"e"}.text("url", "a\"b\\c\n\x7F\xC3/~ ")),
              R"({"event":"e","url":"a\u0022b\u005Cc\u000A\u007F\u00C3/~ "})");
}

TEST(tap_event, a_long_text_is_cut_between_characters)
{
    const std::string plain = text_of(tap_event{"e"}.text("url", std::string(5000, 'u')).number("n", 1));
    EXPECT_LT(plain.size(), 1100U);
    EXPECT_GT(plain.size(), 1000U);
    EXPECT_TRUE(plain.ends_with(R"(uuu","n":1})")) << plain;
    const std::string escaped = text_of(tap_event{"e"}.text("url", std::string(5000, '"')).number("n", 1));
    EXPECT_LT(escaped.size(), 1100U);
    EXPECT_TRUE(escaped.ends_with(R"(\u0022\u0022","n":1})")) << escaped;
}

TEST(tap_event, never_outgrows_its_room)
{
    tap_event event{"e"};
    for (int i = 0; i < 5; ++i)
        event.text("url", std::string(5000, i % 2 ? '"' : 'u'))
            .number("number", UINT64_MAX)
            .hex("mac", hex("0102"));
    EXPECT_LE(event.bytes().size(), 1536U);
    EXPECT_EQ(event.bytes().back(), '}');
}

} // namespace rtls
