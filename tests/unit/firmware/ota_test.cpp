#include "firmware/ota.h"

#include "firmware/image_download.h"
#include "support/http_responder.h"
#include "support/log_capture.h"
#include "support/ota_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

namespace rtls {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr uint32_t git = 0x01020304;
constexpr uint32_t crc = 0x0A0B0C0D;

} // namespace

// --- the store

TEST(ota, new_store_is_empty)
{
    const struct {
        uint16_t files_number;
    } cases[] = {{1}, {2}, {5}, {65535}};
    for (const auto& c : cases) {
        const auto store = store_of(c.files_number);
        ASSERT_TRUE(store);
        EXPECT_EQ(ota_get_files_number(store.get()), c.files_number);
        EXPECT_THAT(slots(store), Each(0u));
    }
}

TEST(ota, store_without_slots_holds_nothing)
{
    const auto store = store_of(0);
    ASSERT_TRUE(store);
    EXPECT_EQ(ota_get_files_number(store.get()), 0);
    EXPECT_EQ(download(store, image_of(git)), -1);
    EXPECT_FALSE(set_page(store, git, crc, 0, bytes_t(32)));
    EXPECT_FALSE(get_page(store, git, crc, 32, 0));
    EXPECT_FALSE(ota_del_firmware(store.get(), 0));
}

TEST(ota, destroy_takes_null_and_leaves_null)
{
    log_capture log;
    void* p_ota = ota_new(2);
    ota_destroy(&p_ota);
    EXPECT_EQ(p_ota, nullptr);
    ota_destroy(&p_ota);
    EXPECT_EQ(p_ota, nullptr);
    EXPECT_THAT(log.messages("main"), IsEmpty());
}

// --- downloads

TEST(ota_download, info_comes_from_the_image)
{
    const auto store = store_of(2);
    const std::string image = image_of(0x89ABCDEF, 1000);
    log_capture log;
    EXPECT_EQ(download(store, image), 0);
    OTA_FIRMWARE_INFO_t info{};
    ASSERT_TRUE(ota_get_firmware_info(store.get(), 0, &info));
    EXPECT_TRUE(is_same(info, {.size = 1000,
                               .crc32 = crc_of(image),
                               .board_version = 1,
                               .board_revision = 2,
                               .git_ver = 0x89ABCDEF,
                               .page_size = 128,
                               .maximum_pages = 64}));
    EXPECT_THAT(log.messages("main"), IsEmpty());
}

TEST(ota_download, crc_is_the_usual_one)
{
    const auto store = store_of(1);
    // An image with its own CRC behind it has one CRC for all images: 0x2144DF1C by the rule with
    // inversions, but 0 by the one without.
    std::string image = image_of(git);
    const uint32_t own = crc_of(image);
    for (int i = 0; i < 4; ++i)
        image.push_back(static_cast<char>(own >> (8 * i)));
    EXPECT_EQ(download(store, image, 0x2144DF1Cu), 0);
}

TEST(ota_download, expectations_are_checked_in_order)
{
    constexpr char bad_crc[] = "ota_download_firmware incorrect crc32!";
    constexpr char bad_git[] = "ota_download_firmware incorrect git version!";
    constexpr char no_board[] = "tag \"@BoardVer\" not found in firmware!";
    constexpr char no_firmware[] = "tag \"@Firmware\" not found in firmware!";
    const std::string good = image_of(git);
    const struct {
        const char* given;
        std::string image;
        std::optional<uint32_t> crc32;
        std::optional<uint32_t> git_ver;
        std::vector<std::string> logged; // none: stored
    } cases[] = {
        {"nothing expected", good, {}, {}, {}},
        {"right crc", good, crc_of(good), {}, {}},
        {"right version", good, {}, git, {}},
        {"both right", good, crc_of(good), git, {}},
        {"wrong crc", good, crc_of(good) ^ 1, git, {bad_crc}},
        {"crc 0 is an expectation", good, 0u, {}, {bad_crc}},
        {"wrong version", good, crc_of(good), git + 1, {bad_git}},
        {"version 0 is an expectation", good, {}, 0u, {bad_git}},
        {"both wrong", good, crc_of(good) ^ 1, git + 1, {bad_crc}},
        {"wrong crc, no tags", "abc", 1u, 1u, {bad_crc}},
        {"no tags", "abc", {}, 1u, {no_board}},
        {"empty image", "", {}, {}, {no_board}},
        {"empty image, crc expected", "", 1u, {}, {bad_crc}},
        {"empty image, its crc expected", "", 0u, {}, {no_board}},
        {"no board tag", firmware_tag(git), {}, git + 1, {no_board}},
        {"no firmware tag", board_tag(), {}, git + 1, {no_firmware}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        const auto store = store_of(1);
        log_capture log;
        EXPECT_EQ(download(store, c.image, c.crc32, c.git_ver), c.logged.empty() ? 0 : -1);
        EXPECT_EQ(log.messages("main"), c.logged);
        EXPECT_THAT(slots(store), ElementsAre(c.logged.empty() ? git : 0u));
    }
}

TEST(ota_download, failed_transfer_leaves_the_store_as_it_is)
{
    constexpr char refused[] = "curl_easy_perform failed: Failed writing received data to disk/application";
    const struct {
        const char* given;
        std::string answer;
        std::vector<std::string> logged;
    } cases[] = {
        {"no length",
         http_ok("", image_of(2)),
         {"writeMemoryCallback: memory for the firmware is not allocated!", refused}},
        {"absurd length",
         http_ok("Content-Length: 99999999999999999999999\r\n", image_of(2)),
         {"headerCallback: out of memory!", refused}},
        {"body missing",
         http_ok("Content-Length: 9999\r\n", image_of(2)),
         {"curl_easy_perform failed: Transferred a partial file"}},
        {"nothing", "", {"curl_easy_perform failed: Server returned nothing (no headers, no data)"}},
    };
    const auto store = store_of(1);
    ASSERT_EQ(download(store, image_of(1)), 0);
    log_capture log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        http_responder server{{{"/image.bin", {c.answer}}}};
        EXPECT_EQ(ota_download_firmware(store.get(), server.url("/image.bin").c_str(), nullptr, nullptr), -1);
        EXPECT_EQ(log.messages("main"), c.logged);
        EXPECT_THAT(slots(store), ElementsAre(1u));
    }
}

TEST(ota_download, transfer_does_not_hold_up_the_store)
{
    const auto store = store_of(2);
    ASSERT_EQ(download(store, image_of(1)), 0);
    const std::string second = image_of(2);
    http_responder server{{{"/image.bin", {http_image(second), http_answer::pace::after_release}}}};
    auto downloaded = std::async(std::launch::async, [&] {
        return ota_download_firmware(store.get(), server.url("/image.bin").c_str(), nullptr, nullptr);
    });
    ASSERT_TRUE(server.wait_for_requests(1));
    EXPECT_TRUE(get_page(store, 1, crc_of(image_of(1)), 128, 0));
    EXPECT_TRUE(set_page(store, 3, crc, 0, bytes_t(32)));
    server.release();
    EXPECT_EQ(downloaded.get(), 0) << "the cursor went on meanwhile";
    EXPECT_THAT(slots(store), ElementsAre(2u, 3u));
}

// --- slots

TEST(ota_slots, oldest_insertion_is_replaced)
{
    const auto store = store_of(2);
    EXPECT_EQ(download(store, image_of(1)), 0);
    EXPECT_THAT(slots(store), ElementsAre(1u, 0u));
    EXPECT_EQ(download(store, image_of(2)), 1);
    EXPECT_THAT(slots(store), ElementsAre(1u, 2u));
    EXPECT_EQ(download(store, image_of(3)), 0);
    EXPECT_THAT(slots(store), ElementsAre(3u, 2u));
    EXPECT_EQ(download(store, image_of(4)), 1);
    EXPECT_THAT(slots(store), ElementsAre(3u, 4u));
}

TEST(ota_slots, same_key_is_replaced_in_place_and_the_cursor_stays)
{
    const auto store = store_of(3);
    EXPECT_EQ(download(store, image_of(1)), 0);
    EXPECT_EQ(download(store, image_of(2)), 1);
    EXPECT_EQ(download(store, image_of(1)), 0);
    EXPECT_EQ(download(store, image_of(1)), 0);
    EXPECT_THAT(slots(store), ElementsAre(1u, 2u, 0u));
    EXPECT_EQ(download(store, image_of(3)), 2);
    EXPECT_EQ(download(store, image_of(4)), 0);
    EXPECT_THAT(slots(store), ElementsAre(4u, 2u, 3u));
}

TEST(ota_slots, key_is_version_and_crc)
{
    const auto store = store_of(4);
    EXPECT_EQ(download(store, image_of(1, 1000)), 0);
    EXPECT_EQ(download(store, image_of(1, 1001)), 1) << "another crc";
    EXPECT_TRUE(set_page(store, 2, crc_of(image_of(1, 1000)), 0, bytes_t(32))) << "another version";
    EXPECT_THAT(slots(store), ElementsAre(1u, 1u, 2u, 0u));
}

TEST(ota_slots, deletion_empties_a_slot_and_does_not_move_the_cursor)
{
    const auto store = store_of(3);
    download(store, image_of(1));
    download(store, image_of(2));
    EXPECT_TRUE(ota_del_firmware(store.get(), 0));
    EXPECT_THAT(slots(store), ElementsAre(0u, 2u, 0u));
    EXPECT_FALSE(ota_del_firmware(store.get(), 0)) << "empty already";
    EXPECT_FALSE(ota_del_firmware(store.get(), 3)) << "out of range";
    EXPECT_FALSE(ota_del_firmware(store.get(), 222)) << "out of range";
    EXPECT_EQ(download(store, image_of(3)), 2) << "not the emptied one";
    EXPECT_EQ(download(store, image_of(4)), 0);
    EXPECT_EQ(download(store, image_of(5)), 1) << "the cursor's, even if others are empty";
    EXPECT_THAT(slots(store), ElementsAre(4u, 5u, 3u));
    EXPECT_TRUE(ota_del_firmware(store.get(), 1));
    EXPECT_EQ(download(store, image_of(6)), 2) << "in use, although slot 1 is empty";
    EXPECT_THAT(slots(store), ElementsAre(4u, 0u, 6u));
}

TEST(ota_slots, info_of_no_image_is_refused)
{
    const auto store = store_of(2);
    download(store, image_of(1));
    OTA_FIRMWARE_INFO_t info{};
    info.size = 77;
    EXPECT_FALSE(ota_get_firmware_info(store.get(), 1, &info));
    EXPECT_FALSE(ota_get_firmware_info(store.get(), 2, &info));
    EXPECT_FALSE(ota_get_firmware_info(store.get(), 65535, &info));
    EXPECT_EQ(info.size, 77u);
}

TEST(ota_slots, assembled_image_takes_a_slot_like_any_other)
{
    const auto store = store_of(1);
    ASSERT_EQ(download(store, image_of(1)), 0);
    EXPECT_TRUE(set_page(store, git, crc, 0, bytes_t(32)));
    EXPECT_THAT(slots(store), ElementsAre(git));
    ASSERT_EQ(download(store, image_of(1)), 0);
    EXPECT_THAT(slots(store), ElementsAre(1u));
    EXPECT_FALSE(get_page(store, git, crc, 32, 0));
}

TEST(ota_slots, download_replaces_the_image_that_is_being_assembled)
{
    const auto store = store_of(2);
    const std::string image = image_of(git);
    ASSERT_TRUE(set_page(store, git, crc_of(image), 0, bytes_t(32, 0x55)));
    EXPECT_EQ(download(store, image), 0);
    EXPECT_EQ(get_page(store, git, crc_of(image), 32, 0), bytes_t(image.begin(), image.begin() + 32));
    EXPECT_EQ(size_of_slot(store, 0), image.size());
}

} // namespace rtls
