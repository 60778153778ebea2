// The tags themselves, and what becomes of an image by them.
#include "firmware/ota_tags.h"

#include "support/log_capture.h"
#include "support/ota_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace rtls {

using testing::ElementsAre;

namespace {

constexpr uint32_t git = 0x01020304;

bytes_view bytes_of(const std::string& image)
{
    return {reinterpret_cast<const uint8_t*>(image.data()), image.size()};
}

} // namespace

TEST(ota_tags, fill_in_what_their_record_says_and_nothing_else)
{
    const std::string image = "in front" + firmware_tag(0x89ABCDEF) + "between" + board_tag();
    OTA_FIRMWARE_INFO_t board{};
    EXPECT_TRUE(read_board_tag(bytes_of(image), board));
    OTA_FIRMWARE_INFO_t then{};
    then.board_version = 1;
    then.board_revision = 2;
    EXPECT_TRUE(is_same(board, then));
    OTA_FIRMWARE_INFO_t firmware{};
    EXPECT_TRUE(read_firmware_tag(bytes_of(image), firmware));
    then = {};
    then.git_ver = 0x89ABCDEF;
    then.page_size = 128;
    then.maximum_pages = 64;
    EXPECT_TRUE(is_same(firmware, then));
}

TEST(ota_tags, that_are_missing_are_logged_each_by_its_name)
{
    log_capture log;
    OTA_FIRMWARE_INFO_t info{};
    EXPECT_FALSE(read_board_tag(bytes_of(firmware_tag(git)), info));
    EXPECT_FALSE(read_firmware_tag(bytes_of(board_tag()), info));
    EXPECT_THAT(log.messages("main"), ElementsAre("tag \"@BoardVer\" not found in firmware!",
                                                  "tag \"@Firmware\" not found in firmware!"));
    EXPECT_TRUE(is_same(info, OTA_FIRMWARE_INFO_t{}));
}

TEST(ota_tags, are_found_anywhere_and_only_whole)
{
    const std::string board = board_tag();
    const std::string firmware = firmware_tag(git);
    const auto without = [](const std::string& text, size_t n) { return text.substr(0, text.size() - n); };
    const struct {
        const char* given;
        std::string image;
        bool found;
    } cases[] = {
        {"nothing else", board + firmware, true},
        {"in the other order", firmware + board, true},
        {"with bytes around", "xx@" + board + "@@" + firmware + "yy", true},
        {"the word alone first, with a blank", "@BoardVer @Firmware " + board + firmware, true},
        {"the words in a text", "@BoardVer and @Firmware", false},
        {"other case", "@BOARDVER" + board.substr(9) + firmware, false},
        {"firmware record one byte short", board + without(firmware, 1), false},
        {"firmware record missing", board + without(firmware, 8), false},
        {"firmware tag without its zero", board + without(firmware, 9), false},
        {"board record one byte short", firmware + without(board, 1), false},
        {"board record missing", firmware + without(board, 2), false},
        {"board tag without its zero", firmware + without(board, 3), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        const auto store = store_of(1);
        EXPECT_EQ(download(store, c.image), c.found ? 0 : -1);
        EXPECT_THAT(slots(store), ElementsAre(c.found ? git : 0u));
    }
}

TEST(ota_tags, of_an_image_cut_at_every_length_is_refused_until_whole)
{
    const std::string whole = board_tag() + firmware_tag(git);
    for (size_t size = 0; size <= whole.size(); ++size) {
        const auto store = store_of(1);
        EXPECT_EQ(download(store, whole.substr(0, size)), size == whole.size() ? 0 : -1) << size;
    }
}

TEST(ota_tags, the_first_of_each_counts)
{
    const auto store = store_of(1);
    EXPECT_EQ(download(store, firmware_tag(1) + firmware_tag(2) + std::string{"@BoardVer\0\x07\x08", 12} +
                                  board_tag()),
              0);
    OTA_FIRMWARE_INFO_t info{};
    ASSERT_TRUE(ota_get_firmware_info(store.get(), 0, &info));
    EXPECT_EQ(info.git_ver, 1u);
    EXPECT_EQ(info.board_version, 7);
    EXPECT_EQ(info.board_revision, 8);
}

} // namespace rtls
