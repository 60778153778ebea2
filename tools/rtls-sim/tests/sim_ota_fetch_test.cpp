#include "rtls-sim/ota_fetch.h"

#include "rtls-sim/image.h"

#include <gtest/gtest.h>

namespace sim {

using namespace std::chrono_literals;

static bytes some_image()
{
    image_traits traits;
    traits.size = 1000;
    return make_image(traits);
}

static ota_order order_for(const bytes& image)
{
    return {0x0102A0FF, crc32(image), static_cast<uint32_t>(image.size()), 0};
}

// The page as a gateway that has the image answers it.
static bytes page_of(const bytes& image, const ota_page_id& id)
{
    const size_t start = size_t{id.page_size} * id.page;
    bytes page{image.begin() + static_cast<ptrdiff_t>(start),
               image.begin() + static_cast<ptrdiff_t>(std::min(start + id.page_size, image.size()))};
    page.resize(id.page_size, 0xFF);
    return page;
}

// Fetches to the end; `spoil` may change a page on its way.
template <typename Spoil>
static std::string fetch_all(ota_fetch& fetch, const bytes& image, Spoil&& spoil)
{
    auto now = steady::now();
    for (int i = 0; i < 1000 && !fetch.finished(); ++i, now += 1ms)
        if (const auto wanted = fetch.next_request(now)) {
            bytes page = page_of(image, *wanted);
            spoil(wanted->page, page);
            EXPECT_TRUE(fetch.accept({*wanted, page}));
        }
    return fetch.progress(now);
}

static void as_it_is(uint16_t, bytes&) {}

TEST(sim_ota_fetch, fetches_page_by_page_and_checks_the_image)
{
    const bytes image = some_image();
    for (const bytes& reference : {bytes{}, image}) {
        ota_fetch fetch{order_for(image), 128, reference};
        EXPECT_EQ(fetch.pages(), 8U);
        const std::string result = fetch_all(fetch, image, as_it_is);
        EXPECT_TRUE(fetch.succeeded()) << result;
        EXPECT_EQ(fetch.pages_received(), 8U);
        EXPECT_EQ(result.find("same as the image file") != std::string::npos, !reference.empty());
    }
}

TEST(sim_ota_fetch, notices_a_wrong_byte)
{
    const bytes image = some_image();
    const auto flip_in_page_3 = [](uint16_t number, bytes& page) {
        if (number == 3)
            page[5] = static_cast<uint8_t>(page[5] ^ 1);
    };
    ota_fetch compared{order_for(image), 128, image};
    EXPECT_NE(fetch_all(compared, image, flip_in_page_3).find("FAILED: page 3 differs"), std::string::npos);
    EXPECT_EQ(compared.pages_received(), 4U);
    ota_fetch blind{order_for(image), 128, {}};
    EXPECT_NE(fetch_all(blind, image, flip_in_page_3).find("FAILED: CRC"), std::string::npos);
    EXPECT_FALSE(blind.succeeded());
    ota_fetch padded{order_for(image), 128, {}};
    const auto zero_padding = [](uint16_t number, bytes& page) {
        if (number == 7)
            page.back() = 0;
    };
    EXPECT_NE(fetch_all(padded, image, zero_padding).find("FAILED: the last page"), std::string::npos);
}

TEST(sim_ota_fetch, asks_again_and_gives_up)
{
    const bytes image = some_image();
    ota_fetch fetch{order_for(image), 128, {}};
    auto now = steady::now();
    const auto first = fetch.next_request(now);
    ASSERT_TRUE(first);
    EXPECT_FALSE(fetch.next_request(now + 499ms));
    unsigned asked = 1;
    for (; !fetch.finished(); now += 500ms)
        if (const auto again = fetch.next_request(now + 500ms)) {
            EXPECT_EQ(*again, *first);
            ++asked;
        }
    EXPECT_EQ(asked, 10U);
    EXPECT_FALSE(fetch.succeeded());
    EXPECT_FALSE(fetch.accept({*first, page_of(image, *first)}));
}

TEST(sim_ota_fetch, takes_only_the_page_it_asked_for)
{
    const bytes image = some_image();
    ota_fetch fetch{order_for(image), 128, {}};
    const ota_page_id first = *fetch.next_request(steady::now());
    for (ota_page_id other :
         {ota_page_id{1, first.crc, 128, 0}, ota_page_id{first.git_id, 1, 128, 0},
          ota_page_id{first.git_id, first.crc, 64, 0}, ota_page_id{first.git_id, first.crc, 128, 1}}) {
        const bytes page(other.page_size);
        EXPECT_FALSE(fetch.accept({other, page}));
    }
    const bytes page = page_of(image, first);
    EXPECT_TRUE(fetch.accept({first, page}));
    EXPECT_FALSE(fetch.accept({first, page}));
}

TEST(sim_ota_fetch, refuses_what_cannot_be_fetched)
{
    EXPECT_TRUE((ota_fetch{ota_order{1, 2, 0, 0}, 128, {}}.finished()));
    EXPECT_TRUE((ota_fetch{ota_order{1, 2, 100, 0}, 0, {}}.finished()));
    EXPECT_TRUE((ota_fetch{ota_order{1, 2, 0xFFFFFFFF, 0}, 32, {}}.finished()));
    EXPECT_FALSE((ota_fetch{ota_order{1, 2, 65'536 * 32, 0}, 32, {}}.finished()));
}

} // namespace sim
