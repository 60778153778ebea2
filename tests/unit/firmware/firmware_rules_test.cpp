// Where firmware may come from, and whose images an operator's download may replace.
#include "firmware/image_download.h"
#include "firmware/ota.h"
#include "support/http_responder.h"
#include "support/log_capture.h"
#include "support/ota_store.h"
#include "support/temp_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace rtls {

using testing::Each;
using testing::ElementsAre;

class firmware_sources : public testing::Test {
protected:
    ~firmware_sources() override { image_download_only_from({}); }

    log_capture m_log;
    const temp_file m_file{"image.bin", std::string(100, 'x')};
};

TEST_F(firmware_sources, are_all_without_a_list)
{
    EXPECT_TRUE(image_download(m_file.url().c_str(), {.caller = "test"}));
}

TEST_F(firmware_sources, are_what_begins_with_a_prefix)
{
    const std::string url = m_file.url();
    image_download_only_from({"http://127.0.0.1/", url.substr(0, url.rfind('/') + 1)});
    EXPECT_TRUE(image_download(url.c_str(), {.caller = "test"}));
}

TEST_F(firmware_sources, do_not_lead_out_of_their_prefix)
{
    const std::string url = m_file.url();
    const std::string folder = url.substr(0, url.rfind('/') + 1);
    image_download_only_from({folder + "allowed/"});
    for (const char* way : {"../", "%2e%2e/", "%2E./", ".%2e/", "..%2f"})
        EXPECT_FALSE(image_download((folder + "allowed/" + way + "image.bin").c_str(), {.caller = "test"}))
            << way;
}

TEST_F(firmware_sources, beyond_the_list_are_refused_with_the_reason)
{
    image_download_only_from({"https://files.example/"});
    std::string reason;
    for (const std::string& url : {m_file.url(), std::string{"https://files.example"}, std::string{}})
        EXPECT_FALSE(image_download(url.c_str(), {.caller = "test", .reason = &reason})) << url;
    EXPECT_EQ(reason, "firmware does not come from there (firmware_urls)");
    EXPECT_THAT(m_log.messages("main"),
                ElementsAre("test: " + m_file.url() + ": firmware does not come from there (firmware_urls)"))
        << "once an episode";
}

class firmware_redirects : public firmware_sources {
protected:
    static std::string moved_to(const std::string& location)
    {
        return "HTTP/1.1 302 Found\r\nContent-Length: 0\r\nLocation: " + location + "\r\n\r\n";
    }
    static uint64_t forbidden()
    {
        const auto kind = static_cast<size_t>(transfer_outcome::forbidden);
        return image_download_counters().transfers[kind].value();
    }
    bool fetch(const std::string& path)
    {
        return image_download(m_server.url(path).c_str(), {.caller = "test", .reason = &m_reason})
            .has_value();
    }

    http_responder m_elsewhere{{{"/image", {http_image("x")}}}};
    http_responder m_server{{
        {"/allowed/here", {moved_to("/allowed/image")}},
        {"/allowed/up", {moved_to("/image")}},
        {"/allowed/dots", {moved_to("/allowed/../image")}},
        {"/allowed/host", {moved_to(m_elsewhere.url("/image"))}},
        {"/allowed/twice", {moved_to("/allowed/host")}},
        {"/allowed/image", {http_image("x")}},
        {"/image", {http_image("x")}},
    }};
    std::string m_reason;
};

TEST_F(firmware_redirects, lead_anywhere_without_a_list)
{
    for (const char* path : {"/allowed/here", "/allowed/up", "/allowed/dots", "/allowed/twice"})
        EXPECT_TRUE(fetch(path)) << path;
}

TEST_F(firmware_redirects, lead_to_what_is_on_the_list)
{
    image_download_only_from({m_server.url("/allowed/")});
    EXPECT_TRUE(fetch("/allowed/here"));
    EXPECT_EQ(m_server.requests().size(), 2U);
}

TEST_F(firmware_redirects, lead_nowhere_else)
{
    image_download_only_from({m_server.url("/allowed/")});
    const uint64_t before = forbidden();
    for (const char* path : {"/allowed/up", "/allowed/dots", "/allowed/host", "/allowed/twice"}) {
        m_reason.clear();
        EXPECT_FALSE(fetch(path)) << path;
        EXPECT_EQ(m_reason, "firmware does not come from there (firmware_urls)") << path;
    }
    EXPECT_EQ(forbidden() - before, 4U);
    EXPECT_THAT(m_log.messages("main"), ElementsAre("test: " + m_server.url("/image") +
                                                    ": firmware does not come from there (firmware_urls)"));
    EXPECT_THAT(m_elsewhere.requests(), testing::IsEmpty());
    EXPECT_THAT(m_server.requests(), Each(testing::StartsWith("GET /allowed/")));
}

class ordered_images : public testing::Test {
protected:
    int order(uint32_t git_ver)
    {
        const std::string image = image_of(git_ver);
        return download(m_store, image, crc_of(image), git_ver);
    }
    int fetch(uint32_t git_ver) { return download(m_store, image_of(git_ver)); }
    OTA_t& store() { return *static_cast<OTA_t*>(m_store.get()); }
    void keep_ordered() { store().keep_ordered(); }

    log_capture m_log;
    store_ptr m_store = store_of(3);
};

TEST_F(ordered_images, give_way_unless_they_are_kept)
{
    EXPECT_EQ(order(1), 0);
    EXPECT_EQ(fetch(2), 1);
    EXPECT_EQ(fetch(3), 2);
    EXPECT_EQ(fetch(4), 0);
    EXPECT_THAT(slots(m_store), ElementsAre(4, 2, 3));
}

TEST_F(ordered_images, are_passed_over_by_what_operators_fetch)
{
    keep_ordered();
    EXPECT_EQ(order(1), 0);
    EXPECT_EQ(fetch(2), 1);
    EXPECT_EQ(fetch(3), 2);
    EXPECT_EQ(fetch(4), 1);
    EXPECT_EQ(fetch(4), 1) << "its own";
    EXPECT_EQ(fetch(1), -1) << "nor in place";
    EXPECT_THAT(slots(m_store), ElementsAre(1, 4, 3));
}

TEST_F(ordered_images, leave_no_room_when_all_slots_are_theirs)
{
    keep_ordered();
    for (uint32_t git_ver = 1; git_ver <= 3; ++git_ver)
        (void)order(git_ver);
    EXPECT_EQ(store().refused_for_ordered(), 0U);
    EXPECT_EQ(fetch(4), -1);
    EXPECT_EQ(fetch(4), -1);
    EXPECT_EQ(store().refused_for_ordered(), 2U);
    EXPECT_THAT(m_log.messages("main"),
                ElementsAre("ota_download_firmware: the images that the servers ordered are kept"))
        << "once an episode";
    EXPECT_EQ(order(5), 0) << "the servers replace their own";
    EXPECT_THAT(slots(m_store), ElementsAre(5, 2, 3));
}

TEST_F(ordered_images, may_have_come_page_by_page)
{
    keep_ordered();
    EXPECT_TRUE(set_page(m_store, 7, 8, 0, bytes_t(32)));
    EXPECT_EQ(fetch(1), 1);
    EXPECT_EQ(fetch(2), 2);
    EXPECT_EQ(fetch(3), 1);
    EXPECT_THAT(slots(m_store), ElementsAre(7, 3, 2));
}

} // namespace rtls
