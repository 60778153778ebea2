// What a transfer's headers and body become, without a network.
#include "firmware/image_download.h"
#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <numeric>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rtls {

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char out_of_memory[] = "headerCallback: out of memory!";

constexpr image_download_options lenient{.caller = "test"};
constexpr image_download_options strict{
    .caller = "test", .bad_length_aborts = true, .reports_missing_length = true};

std::string text_of(const std::optional<downloaded_image>& image)
{
    return image ? std::string{reinterpret_cast<const char*>(image->memory.get()), image->size}
                 : std::string{"(none)"};
}

bool give(image_receiver& receiver, std::string_view body)
{
    return receiver.take_body({reinterpret_cast<const uint8_t*>(body.data()), body.size()});
}

} // namespace

TEST(image_receiver, room_for_the_body_is_what_the_last_length_says)
{
    const struct {
        const char* given;
        std::vector<std::string> headers;
        std::optional<size_t> room; // bytes; none: no body is taken
    } cases[] = {
        {"the usual line", {"Content-Length: 5\r\n"}, 5},
        {"no line end", {"Content-Length: 5"}, 5},
        {"lower case", {"content-length: 5\r\n"}, 5},
        {"upper case", {"CONTENT-LENGTH: 5\r\n"}, 5},
        {"no blank", {"Content-Length:5\r\n"}, {}},
        {"two blanks", {"Content-Length:  5\r\n"}, {}},
        {"a tab", {"Content-Length:\t5\r\n"}, {}},
        {"leading zeros", {"Content-Length: 0000000000000000000000000000005\r\n"}, 5},
        {"nothing but zero", {"Content-Length: 0\r\n"}, 0},
        {"no digits", {"Content-Length: \r\n"}, {}},
        {"a word", {"Content-Length: five\r\n"}, {}},
        {"negative", {"Content-Length: -5\r\n"}, {}},
        {"plus sign", {"Content-Length: +5\r\n"}, {}},
        {"two numbers", {"Content-Length: 5, 7\r\n"}, 5},
        {"digits that go over to letters", {"Content-Length: 5abc\r\n"}, 5},
        {"hexadecimal", {"Content-Length: 0x10\r\n"}, 0},
        {"a longer name", {"X-Original-Content-Length: 2\r\n"}, 2},
        {"a longer name after the usual line",
         {"Content-Length: 5\r\n", "X-Original-Content-Length: 2\r\n"},
         2},
        {"a longer name before it", {"X-Original-Content-Length: 2\r\n", "Content-Length: 5\r\n"}, 5},
        {"a shorter name", {"Length: 5\r\n"}, {}},
        {"the words in a value", {"Server: my Content-Length: 3\r\n"}, 3},
        {"other headers around", {"HTTP/1.1 200 OK\r\n", "Content-Length: 5\r\n", "Age: 7\r\n", "\r\n"}, 5},
        {"two, growing", {"Content-Length: 3\r\n", "Content-Length: 5\r\n"}, 5},
        {"two, shrinking", {"Content-Length: 5\r\n", "Content-Length: 3\r\n"}, 3},
        {"then zero", {"Content-Length: 5\r\n", "Content-Length: 0\r\n"}, 0},
        {"an empty line", {""}, {}},
        {"no header", {}, {}},
    };
    for (const auto& c : cases)
        for (const auto& options : {lenient, strict}) {
            SCOPED_TRACE(c.given);
            image_receiver receiver{options};
            ASSERT_TRUE(receiver.is_ready());
            for (const auto& line : c.headers)
                EXPECT_TRUE(receiver.take_header(line));
            EXPECT_TRUE(give(receiver, ""));
            EXPECT_TRUE(give(receiver, std::string(c.room.value_or(0), 'x')));
            EXPECT_FALSE(give(receiver, "x"));
            EXPECT_FALSE(receiver.failed());
            EXPECT_EQ(text_of(receiver.release()), std::string(c.room.value_or(0), 'x'));
        }
}

TEST(image_receiver, header_ends_where_its_bytes_end)
{
    const std::string_view more = "Content-Length: 123456";
    for (size_t digits = 1; digits <= 6; ++digits) {
        image_receiver receiver{lenient};
        const std::vector<char> line(more.begin(), more.begin() + 16 + static_cast<ptrdiff_t>(digits));
        EXPECT_TRUE(receiver.take_header({line.data(), line.size()}));
        const size_t room = std::stoul(std::string{more.substr(16, digits)});
        EXPECT_TRUE(give(receiver, std::string(room, 'x')));
        EXPECT_FALSE(give(receiver, "x"));
    }
}

TEST(image_receiver, absurd_lengths_are_out_of_memory)
{
    const struct {
        const char* length;
        bool refused;
    } cases[] = {
        {"67108864", false}, // the ceiling, 64 MiB
        {"67108865", true},
        {"4294967295", true},
        {"4294967296", true}, // 0 in 32 bits
        {"4294967301", true}, // 5 in 32 bits
        {"1099511627776", true},
        {"9223372036854775808", true},
        {"18446744073709551615", true},
        {"18446744073709551616", true}, // 0 in 64 bits
        {"18446744073709551621", true}, // 5 in 64 bits
        {"99999999999999999999999", true},
    };
    log_capture log;
    for (const auto& c : cases)
        for (const auto& options : {lenient, strict}) {
            SCOPED_TRACE(c.length);
            image_receiver receiver{options};
            const std::string line = std::string{"Content-Length: "} + c.length + "\r\n";
            EXPECT_EQ(receiver.take_header(line), !c.refused || !options.bad_length_aborts);
            EXPECT_EQ(receiver.failed(), c.refused);
            EXPECT_EQ(give(receiver, "x"), !c.refused);
            if (c.refused)
                EXPECT_THAT(log.messages("main"), ElementsAre(out_of_memory));
            else
                EXPECT_THAT(log.messages("main"), IsEmpty());
        }
}

TEST(image_receiver, good_length_supersedes_an_absurd_one)
{
    image_receiver receiver{lenient};
    EXPECT_TRUE(receiver.take_header("Content-Length: 99999999999999999999999\r\n"));
    EXPECT_TRUE(receiver.failed());
    EXPECT_TRUE(receiver.take_header("Content-Length: 3\r\n"));
    EXPECT_FALSE(receiver.failed());
    EXPECT_TRUE(give(receiver, "abc"));
    EXPECT_EQ(text_of(receiver.release()), "abc");
}

TEST(image_receiver, absurd_length_supersedes_a_good_one)
{
    image_receiver receiver{lenient};
    EXPECT_TRUE(receiver.take_header("Content-Length: 3\r\n"));
    EXPECT_TRUE(receiver.take_header("Content-Length: 99999999999999999999999\r\n"));
    EXPECT_FALSE(give(receiver, "a"));
    EXPECT_TRUE(receiver.failed());
    EXPECT_EQ(text_of(receiver.release()), "");
}

TEST(image_receiver, length_after_the_first_body_byte_fails_and_leaves_the_buffer)
{
    for (const auto& options : {lenient, strict})
        for (const char* late :
             {"Content-Length: 1\r\n", "Content-Length: 5\r\n", "Content-Length: 99999999999999\r\n"}) {
            SCOPED_TRACE(late);
            image_receiver receiver{options};
            EXPECT_TRUE(receiver.take_header("Content-Length: 5\r\n"));
            EXPECT_TRUE(give(receiver, "abc"));
            EXPECT_EQ(receiver.take_header(late), !options.bad_length_aborts);
            EXPECT_TRUE(receiver.failed());
            EXPECT_TRUE(give(receiver, "de"));
            EXPECT_FALSE(give(receiver, "f"));
            EXPECT_EQ(text_of(receiver.release()), "abcde");
        }
}

TEST(image_receiver, body_may_come_in_pieces_of_any_size)
{
    std::string body(1000, '\0');
    std::iota(body.begin(), body.end(), '\0');
    for (size_t piece : {1u, 7u, 999u, 1000u}) {
        image_receiver receiver{strict};
        EXPECT_TRUE(receiver.take_header("Content-Length: 1000\r\n"));
        for (size_t at = 0; at < body.size(); at += piece)
            EXPECT_TRUE(give(receiver, std::string_view{body}.substr(at, piece)));
        EXPECT_EQ(text_of(receiver.release()), body);
    }
}

TEST(image_receiver, piece_that_does_not_fit_is_refused_whole)
{
    image_receiver receiver{strict};
    EXPECT_TRUE(receiver.take_header("Content-Length: 5\r\n"));
    EXPECT_TRUE(give(receiver, "abc"));
    EXPECT_FALSE(give(receiver, "def"));
    EXPECT_EQ(text_of(receiver.release()), "abc");
}

TEST(image_receiver, body_without_length_is_reported_on_request)
{
    log_capture log;
    image_receiver quiet{lenient};
    EXPECT_FALSE(give(quiet, "x"));
    EXPECT_THAT(log.messages("main"), IsEmpty());

    image_receiver loud{strict};
    EXPECT_TRUE(give(loud, ""));
    EXPECT_THAT(log.messages("main"), IsEmpty());
    EXPECT_FALSE(give(loud, "x"));
    EXPECT_THAT(log.messages("main"),
                ElementsAre("writeMemoryCallback: memory for the firmware is not allocated!"));

    image_receiver zero{strict};
    EXPECT_TRUE(zero.take_header("Content-Length: 0\r\n"));
    EXPECT_FALSE(give(zero, "x"));
    EXPECT_THAT(log.messages("main"), IsEmpty());
}

TEST(image_receiver, headers_and_trailers_have_256_kib_together)
{
    image_receiver receiver{strict};
    const std::string line(1024, 'x');
    for (int i = 0; i < 255; ++i)
        EXPECT_TRUE(receiver.take_header(line));
    EXPECT_TRUE(receiver.take_header("Content-Length: 3\r\n"));
    EXPECT_TRUE(receiver.take_body(std::vector<uint8_t>{1, 2, 3}));
    EXPECT_FALSE(receiver.take_header(line));
}

} // namespace rtls
