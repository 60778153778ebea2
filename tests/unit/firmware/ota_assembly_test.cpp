// The pages of the store's images: those that were downloaded, and those that are being assembled.
#include "firmware/image_download.h"
#include "firmware/ota.h"
#include "support/log_capture.h"
#include "support/ota_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <random>

namespace rtls {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr size_t initial_size = ota_growth_bytes; // of an image under assembly
constexpr size_t growth = ota_growth_bytes;

constexpr uint32_t git = 0x01020304;
constexpr uint32_t crc = 0x0A0B0C0D;

} // namespace

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
