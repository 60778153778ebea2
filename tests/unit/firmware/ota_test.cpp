#include "base/common.h"
#include "base/czmq_ptr.h"
#include "firmware/crc32.h"
#include "firmware/image_download.h"
#include "firmware/ota.h"
#include "support/http_responder.h"
#include "support/log_capture.h"
#include "support/temp_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace rtls {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using bytes_t = std::vector<uint8_t>;

namespace {

using store_ptr = std::unique_ptr<void, destroyed_by<ota_destroy>>;

constexpr size_t initial_size = 262'144; // of an image under assembly
constexpr size_t growth = 262'144;

store_ptr store_of(uint16_t files_number)
{
    return store_ptr{ota_new(files_number)};
}

// "@BoardVer": version 1, revision 2. "@Firmware": the version given, pages of 128 bytes, at most 64.
std::string board_tag()
{
    return {"@BoardVer\0\x01\x02", 12};
}

std::string firmware_tag(uint32_t git_ver)
{
    std::string tag{"@Firmware\0....\x00\x80\x00\x40", 18};
    for (size_t i = 0; i < 4; ++i)
        tag[10 + i] = static_cast<char>(git_ver >> (24 - 8 * i));
    return tag;
}

// Tags, then bytes that count up, `size` bytes in all.
std::string image_of(uint32_t git_ver, size_t size = 1000)
{
    std::string image = board_tag() + "between" + firmware_tag(git_ver);
    while (image.size() < size)
        image.push_back(static_cast<char>(image.size()));
    return image;
}

uint32_t crc_of(const std::string& image)
{
    return crc32_byte(reinterpret_cast<const uint8_t*>(image.data()), static_cast<uint32_t>(image.size()));
}

int download(const store_ptr& store, const std::string& image, std::optional<uint32_t> crc32 = {},
             std::optional<uint32_t> git_ver = {})
{
    const temp_file file{"image.bin", image};
    return ota_download_firmware(store.get(), file.url().c_str(), crc32 ? &*crc32 : nullptr,
                                 git_ver ? &*git_ver : nullptr);
}

bool is_same(const OTA_FIRMWARE_INFO_t& a, const OTA_FIRMWARE_INFO_t& b)
{
    return a.size == b.size && a.crc32 == b.crc32 && a.board_version == b.board_version &&
           a.board_revision == b.board_revision && a.git_ver == b.git_ver && a.page_size == b.page_size &&
           a.maximum_pages == b.maximum_pages;
}

// What is in the slots, by git_ver; 0 for an empty slot.
std::vector<uint32_t> slots(const store_ptr& store)
{
    std::vector<uint32_t> result;
    for (uint16_t i = 0; i < ota_get_files_number(store.get()); ++i) {
        OTA_FIRMWARE_INFO_t info{};
        result.push_back(ota_get_firmware_info(store.get(), i, &info) ? info.git_ver : 0);
    }
    return result;
}

size_t size_of_slot(const store_ptr& store, uint16_t index)
{
    OTA_FIRMWARE_INFO_t info{};
    return ota_get_firmware_info(store.get(), index, &info) ? info.size : 0;
}

// A page, or nothing; checks that not a byte more than the page is written.
std::optional<bytes_t> get_page(const store_ptr& store, uint32_t git_id, uint32_t crc32, uint32_t page_size,
                                uint32_t page_number)
{
    constexpr size_t guard = 8;
    bytes_t page(page_size + guard, 0xC3);
    const bool got = ota_get_firmware_page(store.get(), git_id, crc32, page_size, page_number, page.data());
    EXPECT_THAT(bytes_t(page.end() - guard, page.end()), Each(0xC3));
    if (!got) {
        EXPECT_THAT(page, Each(0xC3)) << "a refusal leaves the buffer alone";
        return std::nullopt;
    }
    page.resize(page_size);
    return page;
}

bool set_page(const store_ptr& store, uint32_t git_id, uint32_t crc32, uint32_t page_number,
              const bytes_t& page)
{
    return ota_set_firmware_page(store.get(), git_id, crc32, static_cast<uint32_t>(page.size()), page_number,
                                 page.data());
}

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
    ota_destroy(nullptr);
    EXPECT_THAT(log.messages("main"), ElementsAre("ota_destroy: null pointer!"));
}

TEST(ota, null_arguments_are_reported)
{
    const auto store = store_of(1);
    void* ota = store.get();
    uint8_t page[32] = {};
    OTA_FIRMWARE_INFO_t info{};
    log_capture log;
    EXPECT_EQ(ota_download_firmware(nullptr, "http://127.0.0.1:1/", nullptr, nullptr), -1);
    EXPECT_EQ(ota_download_firmware(ota, nullptr, nullptr, nullptr), -1);
    EXPECT_THAT(log.messages("main"),
                ElementsAre("ota_download_firmware: null pointer!", "ota_download_firmware: null pointer!"));
    EXPECT_FALSE(ota_get_firmware_info(nullptr, 0, &info));
    EXPECT_FALSE(ota_get_firmware_info(ota, 0, nullptr));
    EXPECT_THAT(log.messages("main"),
                ElementsAre("ota_get_firmware_info: null pointer!", "ota_get_firmware_info: null pointer!"));
    EXPECT_FALSE(ota_del_firmware(nullptr, 0));
    EXPECT_EQ(ota_get_files_number(nullptr), 0);
    EXPECT_THAT(log.messages("main"),
                ElementsAre("ota_del_firmware: null pointer!", "ota_get_files_number: null pointer!"));
    EXPECT_FALSE(ota_get_firmware_page(nullptr, git, crc, 32, 0, page));
    EXPECT_FALSE(ota_get_firmware_page(ota, git, crc, 32, 0, nullptr));
    EXPECT_THAT(log.messages("main"),
                ElementsAre("ota_get_firmware_page: null pointer!", "ota_get_firmware_page: null pointer!"));
    EXPECT_FALSE(ota_set_firmware_page(nullptr, git, crc, 32, 0, page));
    EXPECT_FALSE(ota_set_firmware_page(ota, git, crc, 32, 0, nullptr));
    EXPECT_THAT(log.messages("main"),
                ElementsAre("ota_set_firmware_page: null pointer!", "ota_set_firmware_page: null pointer!"));
    EXPECT_THAT(slots(store), ElementsAre(0u));
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

TEST(ota_download, tags_are_found_anywhere_and_only_whole)
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

TEST(ota_download, image_cut_at_every_length_is_refused_until_whole)
{
    const std::string whole = board_tag() + firmware_tag(git);
    for (size_t size = 0; size <= whole.size(); ++size) {
        const auto store = store_of(1);
        EXPECT_EQ(download(store, whole.substr(0, size)), size == whole.size() ? 0 : -1) << size;
    }
}

TEST(ota_download, first_tag_counts)
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

// --- pages of downloaded images

TEST(ota_get_page, pages_of_a_downloaded_image)
{
    const std::string image = image_of(git, 1000);
    const auto store = store_of(1);
    ASSERT_EQ(download(store, image), 0);
    const struct {
        const char* given;
        uint32_t page_size;
        uint32_t page_number;
        bool served;
    } cases[] = {
        {"first page", 128, 0, true},
        {"a page in between", 128, 3, true},
        {"last page, 104 bytes of the image", 128, 7, true},
        {"past the last page", 128, 8, false},
        {"one block", 32, 30, true},
        {"last block, 8 bytes of the image", 32, 31, true},
        {"past the last block", 32, 32, false},
        {"larger than the image", 1024, 0, true},
        {"much larger than the image", 65504, 0, true},
        {"second of those", 65504, 1, false},
        {"no multiple of 32", 100, 0, false},
        {"one less", 31, 0, false},
        {"one more", 33, 0, false},
        {"largest of 16 bits", 65535, 0, false},
        {"page number of 16 bits", 128, 65535, false},
        {"start wraps to 0 in 32 bits", 0x80000000, 2, false},
        {"start wraps to 64 in 32 bits", 64, 0x04000001, false},
        {"start is the largest", 0xFFFFFFE0, 0xFFFFFFFF, false},
        {"size 0", 0, 0, true},
        {"size 0, any number", 0, 65535, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        if (!c.served) { // nothing is written, so the largest sizes need no buffer
            uint8_t untouched = 0xC3;
            EXPECT_FALSE(ota_get_firmware_page(store.get(), git, crc_of(image), c.page_size, c.page_number,
                                               &untouched));
            EXPECT_EQ(untouched, 0xC3);
            continue;
        }
        const auto page = get_page(store, git, crc_of(image), c.page_size, c.page_number);
        ASSERT_TRUE(page);
        bytes_t expected(c.page_size, 0xFF);
        for (size_t i = 0, at = size_t{c.page_size} * c.page_number; i < c.page_size && at < image.size();
             ++i, ++at)
            expected[i] = static_cast<uint8_t>(image[at]);
        EXPECT_EQ(*page, expected);
    }
}

TEST(ota_get_page, last_page_is_padded)
{
    const std::string image = image_of(git, 1000);
    const auto store = store_of(1);
    ASSERT_EQ(download(store, image), 0);
    const auto page = get_page(store, git, crc_of(image), 128, 7);
    ASSERT_TRUE(page);
    EXPECT_EQ(bytes_t(page->begin(), page->begin() + 104), bytes_t(image.end() - 104, image.end()));
    EXPECT_EQ(bytes_t(page->begin() + 104, page->end()), bytes_t(24, 0xFF));
}

TEST(ota_get_page, image_is_known_by_both_halves_of_its_key)
{
    const std::string image = image_of(git);
    const auto store = store_of(2);
    ASSERT_EQ(download(store, image), 0);
    EXPECT_TRUE(get_page(store, git, crc_of(image), 32, 0));
    EXPECT_FALSE(get_page(store, git + 1, crc_of(image), 32, 0));
    EXPECT_FALSE(get_page(store, git, crc_of(image) + 1, 32, 0));
    EXPECT_TRUE(ota_del_firmware(store.get(), 0));
    EXPECT_FALSE(get_page(store, git, crc_of(image), 32, 0));
}

// --- assembly

TEST(ota_assembly, first_page_makes_the_image)
{
    const auto store = store_of(1);
    EXPECT_TRUE(set_page(store, git, crc, 0, bytes_t(64, 0x11)));
    OTA_FIRMWARE_INFO_t info{};
    ASSERT_TRUE(ota_get_firmware_info(store.get(), 0, &info));
    EXPECT_TRUE(is_same(info, {.size = initial_size,
                               .crc32 = crc,
                               .board_version = 0,
                               .board_revision = 0,
                               .git_ver = git,
                               .page_size = 0,
                               .maximum_pages = 0}));
    EXPECT_EQ(get_page(store, git, crc, 64, 0), bytes_t(64, 0x11));
}

TEST(ota_assembly, page_is_served_when_all_its_blocks_have_come)
{
    const auto store = store_of(1);
    EXPECT_TRUE(set_page(store, git, crc, 1, bytes_t(64, 0x22))); // bytes 64..127
    EXPECT_FALSE(get_page(store, git, crc, 64, 0));
    EXPECT_FALSE(get_page(store, git, crc, 128, 0));
    EXPECT_FALSE(get_page(store, git, crc, 64, 2));
    EXPECT_TRUE(get_page(store, git, crc, 64, 1));
    EXPECT_EQ(get_page(store, git, crc, 32, 3), bytes_t(32, 0x22));
    EXPECT_TRUE(set_page(store, git, crc, 0, bytes_t(32, 0x11))); // bytes 0..31
    EXPECT_FALSE(get_page(store, git, crc, 128, 0)) << "a block in the middle is missing";
    EXPECT_TRUE(set_page(store, git, crc, 1, bytes_t(32, 0x33))); // bytes 32..63
    bytes_t whole(128, 0x22);
    std::fill_n(whole.begin(), 32, uint8_t{0x11});
    std::fill_n(whole.begin() + 32, 32, uint8_t{0x33});
    EXPECT_EQ(get_page(store, git, crc, 128, 0), whole);
}

TEST(ota_assembly, complete_page_keeps_its_first_content)
{
    const auto store = store_of(1);
    EXPECT_TRUE(set_page(store, git, crc, 0, bytes_t(64, 0x11)));
    EXPECT_TRUE(set_page(store, git, crc, 0, bytes_t(64, 0x22)));
    EXPECT_EQ(get_page(store, git, crc, 64, 0), bytes_t(64, 0x11));
    EXPECT_TRUE(set_page(store, git, crc, 1, bytes_t(32, 0x33)));
    EXPECT_EQ(get_page(store, git, crc, 64, 0), bytes_t(64, 0x11));
}

TEST(ota_assembly, page_with_a_missing_block_is_copied_whole)
{
    const auto store = store_of(1);
    EXPECT_TRUE(set_page(store, git, crc, 0, bytes_t(32, 0x11)));
    EXPECT_TRUE(set_page(store, git, crc, 0, bytes_t(64, 0x22)));
    EXPECT_EQ(get_page(store, git, crc, 64, 0), bytes_t(64, 0x22));
}

TEST(ota_assembly, page_sizes_that_are_refused)
{
    const auto store = store_of(1);
    for (const size_t size : {1u, 31u, 33u, 100u, 65535u})
        EXPECT_FALSE(set_page(store, git, crc, 0, bytes_t(size)));
    EXPECT_THAT(slots(store), ElementsAre(0u));
}

TEST(ota_assembly, page_of_no_bytes_makes_an_empty_image)
{
    const auto store = store_of(1);
    const uint8_t none = 0;
    EXPECT_TRUE(ota_set_firmware_page(store.get(), git, crc, 0, 65535, &none));
    EXPECT_THAT(slots(store), ElementsAre(git));
    EXPECT_EQ(size_of_slot(store, 0), initial_size);
    EXPECT_FALSE(get_page(store, git, crc, 32, 0));
    EXPECT_TRUE(get_page(store, git, crc, 0, 65535));
}

TEST(ota_assembly, downloaded_image_takes_no_pages)
{
    const std::string image = image_of(git);
    const auto store = store_of(1);
    ASSERT_EQ(download(store, image), 0);
    EXPECT_FALSE(set_page(store, git, crc_of(image), 0, bytes_t(32, 0x55)));
    EXPECT_FALSE(set_page(store, git, crc_of(image), 65535, bytes_t(65504, 0x55)));
    EXPECT_EQ(get_page(store, git, crc_of(image), 32, 0), bytes_t(image.begin(), image.begin() + 32));
    EXPECT_EQ(size_of_slot(store, 0), image.size());
}

TEST(ota_assembly, image_grows_so_that_the_whole_page_fits)
{
    const struct {
        const char* given;
        uint32_t page_size;
        uint32_t page_number;
        size_t size; // of the image afterwards
    } cases[] = {
        {"last block of the first size", 32, 8191, initial_size},
        {"first block past it", 32, 8192, initial_size + growth},
        {"last page of the first size", 128, 2047, initial_size},
        {"first page past it", 128, 2048, initial_size + growth},
        {"last page, short of the end", 96, 2729, initial_size},
        {"page across the end", 96, 2730, initial_size + growth},
        {"large page across the end", 65504, 4, initial_size + growth},
        {"last block that one step admits", 32, 16383, initial_size + growth},
        {"farther than one step", 32, 16384, size_t{16385} * 32},
        {"much farther", 768, 65535, size_t{65536} * 768},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        const auto store = store_of(1);
        EXPECT_TRUE(set_page(store, git, crc, c.page_number, bytes_t(c.page_size, 0x77)));
        EXPECT_EQ(size_of_slot(store, 0), c.size);
        EXPECT_EQ(get_page(store, git, crc, c.page_size, c.page_number), bytes_t(c.page_size, 0x77));
        EXPECT_FALSE(get_page(store, git, crc, c.page_size, c.page_number - 1));
        EXPECT_FALSE(get_page(store, git, crc, c.page_size, c.page_number + 1));
    }
}

TEST(ota_assembly, growth_keeps_what_is_there)
{
    const auto store = store_of(1);
    for (uint32_t page : {0u, 100u, 2047u})
        EXPECT_TRUE(set_page(store, git, crc, page, bytes_t(128, static_cast<uint8_t>(page))));
    EXPECT_TRUE(set_page(store, git, crc, 2048, bytes_t(128, 0x99)));
    EXPECT_TRUE(set_page(store, git, crc, 10000, bytes_t(128, 0x88)));
    for (uint32_t page : {0u, 100u, 2047u})
        EXPECT_EQ(get_page(store, git, crc, 128, page), bytes_t(128, static_cast<uint8_t>(page)));
    EXPECT_EQ(get_page(store, git, crc, 128, 2048), bytes_t(128, 0x99));
    EXPECT_EQ(get_page(store, git, crc, 128, 10000), bytes_t(128, 0x88));
    EXPECT_FALSE(get_page(store, git, crc, 128, 1));
    EXPECT_FALSE(get_page(store, git, crc, 128, 2049));
    EXPECT_FALSE(get_page(store, git, crc, 128, 9999));
}

TEST(ota_assembly, image_grows_up_to_the_ceiling)
{
    constexpr uint32_t page_size = 32768;
    constexpr uint32_t last_page = image_size_ceiling / page_size - 1;
    const auto store = store_of(1);
    log_capture log;
    EXPECT_TRUE(set_page(store, git, crc, last_page - 4, bytes_t(page_size, 0x11)));
    EXPECT_TRUE(set_page(store, git, crc, last_page - 3, bytes_t(page_size, 0x22)));
    EXPECT_EQ(size_of_slot(store, 0), image_size_ceiling) << "the last step is a shorter one";
    EXPECT_TRUE(set_page(store, git, crc, last_page, bytes_t(page_size, 0x33)));
    EXPECT_THAT(log.messages("main"), IsEmpty());
    EXPECT_EQ(get_page(store, git, crc, page_size, last_page), bytes_t(page_size, 0x33));

    EXPECT_FALSE(set_page(store, git, crc, last_page + 1, bytes_t(page_size, 0x44)));
    EXPECT_THAT(log.messages("main"), ElementsAre("resize_firmware: out of memory!"));
    EXPECT_EQ(size_of_slot(store, 0), image_size_ceiling);
    EXPECT_EQ(get_page(store, git, crc, page_size, last_page - 4), bytes_t(page_size, 0x11));
    EXPECT_EQ(get_page(store, git, crc, page_size, last_page), bytes_t(page_size, 0x33));
}

TEST(ota_assembly, page_beyond_the_ceiling_costs_nothing)
{
    const struct {
        const char* given;
        uint32_t page_size;
        uint32_t page_number;
    } cases[] = {
        {"one block", 32, image_size_ceiling / 32},
        {"across it", 65504, image_size_ceiling / 65504},
        {"largest of 16 bits", 65504, 65535},
        {"start wraps to 0 in 32 bits", 65536, 65536},
        {"start wraps to 32 in 32 bits", 32, 0x08000001},
        {"largest number", 32, 0xFFFFFFFF},
    };
    const auto store = store_of(1);
    ASSERT_EQ(download(store, image_of(1)), 0);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        log_capture log;
        EXPECT_FALSE(set_page(store, git, crc, c.page_number, bytes_t(c.page_size)));
        EXPECT_THAT(log.messages("main"), ElementsAre("resize_firmware: out of memory!"));
        EXPECT_THAT(slots(store), ElementsAre(1u)) << "the image in the only slot stays";
        EXPECT_FALSE(get_page(store, git, crc, c.page_size, c.page_number));
    }
}

TEST(ota_assembly, whole_image_in_any_order_of_pages)
{
    constexpr uint32_t page_size = 256;
    constexpr uint32_t pages = 3000;
    bytes_t image(size_t{page_size} * pages);
    std::mt19937 random{20240501};
    for (auto& value : image)
        value = static_cast<uint8_t>(random());
    std::vector<uint32_t> order(pages);
    for (uint32_t i = 0; i < pages; ++i)
        order[i] = i;
    std::shuffle(order.begin(), order.end(), random);

    const auto store = store_of(1);
    for (const uint32_t page : order)
        ASSERT_TRUE(
            set_page(store, git, crc, page,
                     bytes_t(image.begin() + page * page_size, image.begin() + (page + 1) * page_size)));
    for (uint32_t page = 0; page < pages; ++page)
        ASSERT_EQ(get_page(store, git, crc, page_size, page),
                  bytes_t(image.begin() + page * page_size, image.begin() + (page + 1) * page_size));
}

// --- threads

TEST(ota_threads, pages_are_read_while_slots_change)
{
    const auto store = store_of(2);
    const std::string image = image_of(git);
    ASSERT_EQ(download(store, image), 0);
    std::atomic<bool> done{false};
    auto reader = std::async(std::launch::async, [&] {
        size_t wrong = 0;
        bytes_t page(32);
        do {
            if (ota_get_firmware_page(store.get(), git, crc_of(image), 32, 0, page.data()))
                wrong += page != bytes_t(image.begin(), image.begin() + 32);
        } while (!done);
        return wrong;
    });
    for (uint32_t i = 0; i < 200; ++i) {
        set_page(store, i + 1, crc, i, bytes_t(64, 0x11));
        ota_del_firmware(store.get(), static_cast<uint16_t>(i % 2));
        if (i % 20 == 0) {
            EXPECT_GE(download(store, image), 0);
        }
    }
    done = true;
    EXPECT_EQ(reader.get(), 0u);
}

} // namespace rtls
