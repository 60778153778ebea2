// How long the daemon's threads wait for a web server that says nothing: twenty seconds, and as long for
// their turn. Supervision allows for that much and no more. Each test is idle meanwhile, and ctest runs them
// side by side.
#include "firmware/firmware.h"
#include "firmware/image_download.h"
#include "firmware/ota.h"
#include "support/http_responder.h"
#include "support/log_capture.h"
#include "support/ota_store.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <vector>

namespace rtls {

using namespace std::chrono_literals;

namespace {

class download_patience : public testing::Test {
protected:
    static void expect_twenty_seconds(const std::function<void()>& call)
    {
        const auto begin = std::chrono::steady_clock::now();
        call();
        const auto taken = std::chrono::steady_clock::now() - begin;
        EXPECT_GE(taken, 19'900ms);
        EXPECT_LT(taken, 25s); // less than a busy machine adds, more than any other limit
    }

    log_capture m_log;
    http_responder m_server{{{"/silent", {http_image("late"), http_answer::pace::after_release}}}};
    const std::string m_url = m_server.url("/silent");
};

} // namespace

TEST_F(download_patience, of_an_announced_image)
{
    expect_twenty_seconds([&] { EXPECT_EQ(firmware_get_from_url(m_url.c_str()), nullptr); });
}

TEST_F(download_patience, of_an_image_for_the_store)
{
    const store_ptr store = store_of(1);
    expect_twenty_seconds(
        [&] { EXPECT_LT(ota_download_firmware(store.get(), m_url.c_str(), nullptr, nullptr), 0); });
}

TEST_F(download_patience, of_the_next_who_wants_one)
{
    std::vector<std::future<std::optional<downloaded_image>>> first;
    for (int i = 0; i < transfers_at_once; ++i)
        first.push_back(std::async(std::launch::async, [&] {
            return image_download(m_url.c_str(), {.caller = "test", .timeout = 120s});
        }));
    ASSERT_TRUE(m_server.wait_for_requests(transfers_at_once));
    expect_twenty_seconds([&] { EXPECT_EQ(firmware_get_from_url(m_url.c_str()), nullptr); });
    EXPECT_EQ(m_server.requests().size(), 4U); // it never got as far as asking
    m_server.release();
    for (auto& held : first)
        EXPECT_TRUE(held.get());
}

} // namespace rtls
