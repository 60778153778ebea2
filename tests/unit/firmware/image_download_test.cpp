#include "base/signals.h"
#include "firmware/image_download.h"
#include "support/http_responder.h"
#include "support/log_capture.h"
#include "support/stop.h"
#include "support/temp_file.h"

#include <czmq.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <numeric>
#include <string>
#include <vector>

namespace rtls {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using pace = http_answer::pace;

namespace {

constexpr char refused_body[] = "curl_easy_perform failed: Failed writing received data to disk/application";
constexpr char timed_out[] = "curl_easy_perform failed: Timeout was reached";
constexpr char unsupported[] = "curl_easy_perform failed: Unsupported protocol";
constexpr char unreadable_file[] = "curl_easy_perform failed: Couldn't read a file:// file";
constexpr char aborted[] = "curl_easy_perform failed: Operation was aborted by an application callback";
constexpr char out_of_memory[] = "headerCallback: out of memory!";

constexpr image_download_options lenient{.caller = "test"};
constexpr image_download_options strict{
    .caller = "test", .bad_length_aborts = true, .reports_missing_length = true};

image_download_options with_timeout(std::chrono::milliseconds timeout)
{
    image_download_options options = lenient;
    options.timeout = timeout;
    return options;
}

std::string text_of(const std::optional<downloaded_image>& image)
{
    return image ? std::string{reinterpret_cast<const char*>(image->memory.get()), image->size}
                 : std::string{"(none)"};
}

// What has been counted since it was made.
class counted {
public:
    uint64_t of(transfer_outcome what) const { return now(what) - m_before[static_cast<size_t>(what)]; }
    uint64_t all() const
    {
        uint64_t sum = 0;
        for (size_t i = 0; i < m_before.size(); ++i)
            sum += of(static_cast<transfer_outcome>(i));
        return sum;
    }
    uint64_t bytes() const { return image_download_counters().bytes.value() - m_bytes; }
    std::chrono::microseconds time() const
    {
        return std::chrono::microseconds{image_download_counters().microseconds.value() - m_microseconds};
    }

private:
    static constexpr size_t kinds = static_cast<size_t>(transfer_outcome::kinds);
    static uint64_t now(transfer_outcome what)
    {
        return image_download_counters().transfers[static_cast<size_t>(what)].value();
    }

    const std::array<uint64_t, kinds> m_before = [] {
        std::array<uint64_t, kinds> before{};
        for (size_t i = 0; i < kinds; ++i)
            before[i] = now(static_cast<transfer_outcome>(i));
        return before;
    }();
    const uint64_t m_bytes = image_download_counters().bytes.value();
    const uint64_t m_microseconds = image_download_counters().microseconds.value();
};

struct stop_for_one_test { // puts CZMQ's flag back at the end
    stop_for_one_test() { request_stop(); }
    ~stop_for_one_test() { clear_stop(); }
};

} // namespace

// --- whole transfers

// An answer and what becomes of it; where it redirects, the answer behind that, too.
struct answer_case {
    const char* given;
    std::string answer;
    std::string then; // the image
    std::vector<std::string> logged;
    std::string target = {};
};

static void expect_each(const std::vector<answer_case>& cases)
{
    log_capture log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        http_responder server{{{"/image.bin", {c.answer}}, {"/target", {c.target}}}};
        EXPECT_EQ(text_of(image_download(server.url("/image.bin").c_str(), lenient)), c.then);
        EXPECT_EQ(log.messages("main"), c.logged);
    }
}

TEST(image_download, answer_is_an_image_of_the_announced_length)
{
    expect_each({
        {"exact length", http_image("abcde"), "abcde", {}},
        {"binary bytes", http_image(std::string_view{"\0\xFF\r\n\r\n\0", 7}), {"\0\xFF\r\n\r\n\0", 7}, {}},
        {"length 0", http_image(""), "", {}},
        {"no length, no body", http_ok("", ""), "", {}},
        {"status 204", "HTTP/1.1 204 No Content\r\n\r\n", "", {}},
        {"status 404 with a body", "HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\ngone", "gone", {}},
        {"status 500 with a body", "HTTP/1.1 500 Oh\r\nContent-Length: 4\r\n\r\noops", "oops", {}},
        {"HTTP/1.0", "HTTP/1.0 200 OK\r\nContent-Length: 3\r\n\r\nabc", "abc", {}},
        {"body longer than announced", http_ok("Content-Length: 3\r\n", "abcdef"), "abc", {}},
        {"compressed",
         http_ok("Content-Encoding: gzip\r\nContent-Length: 4\r\n", "\x1F\x8B\x08\x01"),
         "\x1F\x8B\x08\x01",
         {}},
        {"interim response with a length",
         "HTTP/1.1 100 Continue\r\nContent-Length: 2\r\n\r\n" + http_image("abcde"),
         "abcde",
         {}},
    });
}

TEST(image_download, answer_without_what_it_announces_is_a_failed_download)
{
    expect_each({
        {"body shorter than announced",
         http_ok("Content-Length: 6\r\n", "abc"),
         "(none)",
         {"curl_easy_perform failed: Transferred a partial file"}},
        {"announced, but no body",
         http_ok("Content-Length: 6\r\n", ""),
         "(none)",
         {"curl_easy_perform failed: Transferred a partial file"}},
        {"no length", http_ok("", "abc"), "(none)", {refused_body}},
        {"no length, one byte", http_ok("", "a"), "(none)", {refused_body}},
        {"length without blank", http_ok("Content-Length:3\r\n", "abc"), "(none)", {refused_body}},
        {"terabytes",
         http_ok("Content-Length: 1099511627776\r\n", "abc"),
         "(none)",
         {out_of_memory, refused_body}},
        {"more digits than fit",
         http_ok("Content-Length: 99999999999999999999999\r\n", "abc"),
         "(none)",
         {out_of_memory, refused_body}},
        {"negative",
         http_ok("Content-Length: -5\r\n", "abc"),
         "(none)",
         {"curl_easy_perform failed: Weird server reply"}},
        {"nothing at all",
         "",
         "(none)",
         {"curl_easy_perform failed: Server returned nothing (no headers, no data)"}},
        {"no HTTP", "abcde", "(none)", {unsupported}},
    });
}

TEST(image_download, answer_may_have_several_lengths_of_which_the_last_counts)
{
    expect_each({
        {"several lengths, growing",
         http_ok("Content-Length: 3\r\nContent-Length: 5\r\n", "abcde"),
         "abcde",
         {}},
        {"several lengths, shrinking",
         http_ok("Content-Length: 5\r\nContent-Length: 3\r\n", "abcde"),
         "abc",
         {}},
        {"misleading smaller length at the end",
         http_ok("Content-Length: 5\r\nX-Original-Content-Length: 2\r\n", "abcde"),
         "(none)",
         {refused_body}},
        {"misleading larger length at the end",
         http_ok("Content-Length: 5\r\nX-Original-Content-Length: 9\r\n", "abcde"),
         "abcde",
         {}},
        {"misleading length in front",
         http_ok("X-Original-Content-Length: 2\r\nContent-Length: 5\r\n", "abcde"),
         "abcde",
         {}},
    });
}

TEST(image_download, answer_in_chunks_needs_a_length_as_well)
{
    expect_each({
        {"chunked",
         http_ok("Transfer-Encoding: chunked\r\n", "5\r\nabcde\r\n0\r\n\r\n"),
         "(none)",
         {refused_body}},
        {"chunked, longer than a length",
         http_ok("Content-Length: 3\r\nTransfer-Encoding: chunked\r\n", "5\r\nabcde\r\n0\r\n\r\n"),
         "(none)",
         {refused_body}},
        {"chunked, as long as a length",
         http_ok("Content-Length: 5\r\nTransfer-Encoding: chunked\r\n", "2\r\nab\r\n3\r\ncde\r\n0\r\n\r\n"),
         "abcde",
         {}},
        {"chunked, smaller length in the trailer",
         http_ok("Content-Length: 5\r\nTransfer-Encoding: chunked\r\n",
                 "5\r\nabcde\r\n0\r\nContent-Length: 1\r\n\r\n"),
         "(none)",
         {refused_body}},
        {"chunked, length in the trailer only",
         http_ok("Transfer-Encoding: chunked\r\n", "5\r\nabcde\r\n0\r\nContent-Length: 5\r\n\r\n"),
         "(none)",
         {refused_body}},
        {"chunk size that does not fit",
         http_ok("Content-Length: 5\r\nTransfer-Encoding: chunked\r\n",
                 "FFFFFFFFFFFFFFFFF\r\nabcde\r\n0\r\n\r\n"),
         "(none)",
         {"curl_easy_perform failed: Failure when receiving data from the peer"}},
    });
}

TEST(image_download, answer_of_a_redirect_is_not_the_image)
{
    const std::string redirect = "HTTP/1.1 302 Found\r\nConnection: close\r\nLocation: /target\r\n";
    expect_each({
        {"redirect with a body",
         redirect + "Content-Length: 9\r\n\r\nelsewhere",
         "abcde",
         {},
         http_image("abcde")},
        {"redirect with a shorter body",
         redirect + "Content-Length: 2\r\n\r\nxx",
         "abcde",
         {},
         http_image("abcde")},
        {"redirect's length is too small for the image",
         redirect + "Content-Length: 2\r\n\r\nxx",
         "(none)",
         {refused_body},
         http_ok("", "abcde")},
        {"redirect's length is absurd",
         redirect + "X-Content-Length: 99999999999999999999999\r\nContent-Length: 0\r\n\r\n",
         "abcde",
         {out_of_memory},
         http_image("abcde")},
        {"redirect without length, image without",
         redirect + "\r\n",
         "(none)",
         {refused_body},
         http_ok("", "abcde")},
    });
}

TEST(image_download, strict_caller_gives_up_at_the_header)
{
    const struct {
        const char* given;
        std::string answer;
        std::vector<std::string> logged;
    } cases[] = {
        {"absurd length, no body",
         http_ok("Content-Length: 99999999999999999999999\r\n", ""),
         {out_of_memory, refused_body}},
        {"absurd length of a redirect",
         "HTTP/1.1 302 Found\r\nLocation: /good\r\nX-Content-Length: 67108865\r\n\r\n",
         {out_of_memory, refused_body}},
        {"no length",
         http_ok("", "abc"),
         {"writeMemoryCallback: memory for the firmware is not allocated!", refused_body}},
        {"late length",
         http_ok("Content-Length: 5\r\nTransfer-Encoding: chunked\r\n",
                 "5\r\nabcde\r\n0\r\nContent-Length: 1\r\n\r\n"),
         {refused_body}},
    };
    log_capture log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        http_responder server{{{"/image.bin", {c.answer}}, {"/good", {http_image("abc")}}}};
        EXPECT_EQ(text_of(image_download(server.url("/image.bin").c_str(), strict)), "(none)");
        EXPECT_EQ(log.messages("main"), c.logged);
    }
}

TEST(image_download, answer_without_body_fails_after_an_absurd_length)
{
    // The body never comes to refuse, because the status rules it out.
    http_responder server{
        {{"/image.bin", {"HTTP/1.1 304 Not Modified\r\nContent-Length: 67108865\r\n\r\n"}}}};
    log_capture log;
    EXPECT_EQ(text_of(image_download(server.url("/image.bin").c_str(), lenient)), "(none)");
    EXPECT_THAT(log.messages("main"), ElementsAre(out_of_memory, refused_body));
}

TEST(image_download, large_image_arrives_whole)
{
    std::string body(3'000'000, '\0');
    std::iota(body.begin(), body.end(), '\0');
    http_responder server{{{"/image.bin", {http_image(body)}}}};
    EXPECT_TRUE(text_of(image_download(server.url("/image.bin").c_str(), strict)) == body);
}

TEST(image_download, request_names_the_agent_that_servers_expect)
{
    http_responder server{{{"/dir/image.bin?a=b", {http_image("abc")}}}};
    EXPECT_EQ(text_of(image_download(server.url("/dir/image.bin?a=b").c_str(), lenient)), "abc");
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_THAT(server.requests()[0], testing::StartsWith("GET /dir/image.bin?a=b HTTP/1.1\r\n"));
    EXPECT_THAT(server.requests()[0],
                testing::HasSubstr("\r\nUser-Agent: Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.31 "
                                   "(KHTML,like Gecko) Chrome/26.0.1410.43 Safari/537.31\r\n"));
}

TEST(image_download, url_without_scheme_means_http)
{
    http_responder server{{{"/image.bin", {http_image("abc")}}}};
    EXPECT_EQ(text_of(image_download(server.url("/image.bin").substr(7).c_str(), lenient)), "abc");
}

TEST(image_download, a_failure_has_a_reason)
{
    std::string reason;
    image_download_options options = lenient;
    options.reason = &reason;
    const counted since;
    EXPECT_FALSE(image_download("http://127.0.0.1:1/x", options));
    EXPECT_EQ(reason, "Couldn't connect to server");
    EXPECT_EQ(since.of(transfer_outcome::failed), 1U);
    EXPECT_EQ(since.all(), 1U);
}

TEST(image_download, slow_server_is_given_up_after_the_time_out)
{
    const struct {
        const char* given;
        http_answer answer;
    } cases[] = {
        {"stalls before the status line", {"", pace::then_stall}},
        {"stalls within the status line", {"HTTP/1.1 20", pace::then_stall}},
        {"stalls within a header", {"HTTP/1.1 200 OK\r\nContent-Len", pace::then_stall}},
        {"stalls before the body", {http_ok("Content-Length: 5\r\n", ""), pace::then_stall}},
        {"stalls within the body", {http_ok("Content-Length: 5\r\n", "abc"), pace::then_stall}},
        {"trickles without end", {http_ok("Content-Length: 1000000\r\n", "a"), pace::trickled}},
    };
    log_capture log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        http_responder server{{{"/image.bin", c.answer}}};
        const auto begin = std::chrono::steady_clock::now();
        const counted since;
        EXPECT_EQ(text_of(image_download(server.url("/image.bin").c_str(), with_timeout(300ms))), "(none)");
        const auto took = std::chrono::steady_clock::now() - begin;
        EXPECT_GE(took, 290ms);
        EXPECT_EQ(since.of(transfer_outcome::timed_out), 1U);
        EXPECT_EQ(since.all(), 1U);
        EXPECT_GE(since.time(), 290ms);
        EXPECT_LE(since.time(), took);
        EXPECT_THAT(log.messages("main"), ElementsAre(timed_out));
    }
}

TEST(image_download, redirects_without_end_are_given_up_after_ten)
{
    http_responder server{
        {{"/loop", {"HTTP/1.1 302 Found\r\nConnection: close\r\nLocation: /loop\r\n\r\n"}}}};
    log_capture log;
    EXPECT_EQ(text_of(image_download(server.url("/loop").c_str(), lenient)), "(none)");
    EXPECT_THAT(log.messages("main"),
                ElementsAre("curl_easy_perform failed: Number of redirects hit maximum amount"));
    EXPECT_EQ(server.requests().size(), 11u);
}

TEST(image_download, other_schemes_are_refused)
{
    log_capture log;
    for (const char* scheme : {"ftp", "ftps", "gopher", "dict", "ldap", "smb", "tftp", "scp", "sftp",
                               "telnet", "imap", "pop3", "smtp", "rtsp", "mqtt", "unheard-of"}) {
        SCOPED_TRACE(scheme);
        EXPECT_EQ(text_of(image_download((std::string{scheme} + "://127.0.0.1:9/x").c_str(), lenient)),
                  "(none)");
        EXPECT_THAT(log.messages("main"), ElementsAre(unsupported));
    }
}

TEST(image_download, redirects_leave_neither_http_nor_the_network)
{
    const temp_file secret{"secret.bin", "secret"};
    log_capture log;
    for (const std::string& target :
         {secret.url(), std::string{"ftp://127.0.0.1:9/x"}, std::string{"gopher://127.0.0.1:9/x"}}) {
        SCOPED_TRACE(target);
        http_responder server{
            {{"/image.bin",
              {"HTTP/1.1 302 Found\r\nConnection: close\r\nLocation: " + target + "\r\n\r\n"}}}};
        EXPECT_EQ(text_of(image_download(server.url("/image.bin").c_str(), lenient)), "(none)");
        EXPECT_THAT(log.messages("main"), ElementsAre(unsupported));
    }
}

TEST(image_download, urls_that_lead_nowhere)
{
    const struct {
        const char* url;
        const char* logged;
    } cases[] = {
        {"", "curl_easy_perform failed: URL using bad/illegal format or missing URL"},
        {"http://", "curl_easy_perform failed: URL using bad/illegal format or missing URL"},
        {"http://127.0.0.1:99999/x", "curl_easy_perform failed: URL using bad/illegal format or missing URL"},
        {"http://127.0.0.1:1/x", "curl_easy_perform failed: Couldn't connect to server"},
        {"file:///no/such/file", unreadable_file},
        {"file://elsewhere/etc/hostname",
         "curl_easy_perform failed: URL using bad/illegal format or missing URL"},
    };
    log_capture log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url);
        EXPECT_EQ(text_of(image_download(c.url, lenient)), "(none)");
        EXPECT_THAT(log.messages("main"), ElementsAre(c.logged));
    }
}

// --- files

TEST(image_download, plain_file_is_an_image)
{
    for (const std::string content : {"", "a", "abcde"}) {
        const counted since;
        const temp_file file{"plain image.bin", content};
        std::string url = file.url();
        url.replace(url.find(' '), 1, "%20");
        EXPECT_EQ(text_of(image_download(url.c_str(), strict)), content);
        EXPECT_EQ(since.of(transfer_outcome::complete), 1U);
        EXPECT_EQ(since.all(), 1U);
        EXPECT_EQ(since.bytes(), content.size());
    }
}

TEST(image_download, file_may_be_as_large_as_the_ceiling)
{
    const temp_file file{"large.bin", ""};
    ASSERT_EQ(truncate(file.path(), image_size_ceiling), 0);
    const auto image = image_download(file.url().c_str(), strict);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->size, image_size_ceiling);

    log_capture log;
    ASSERT_EQ(truncate(file.path(), image_size_ceiling + 1), 0);
    EXPECT_FALSE(image_download(file.url().c_str(), strict));
    EXPECT_THAT(log.messages("main"), ElementsAre(out_of_memory, refused_body));
    EXPECT_FALSE(image_download(file.url().c_str(), lenient));
    EXPECT_THAT(log.messages("main"), ElementsAre(out_of_memory, refused_body));
}

TEST(image_download, files_that_could_block_are_refused)
{
    const temp_file pipe{"pipe"};
    ASSERT_EQ(mkfifo(pipe.path(), 0600), 0);
    const std::string pipe_in_capitals = "FILE" + pipe.url().substr(4);
    const temp_file odd_pipe{"pi\x01pe"};
    ASSERT_EQ(mkfifo(odd_pipe.path(), 0600), 0);
    std::string odd_url = odd_pipe.url();
    odd_url.replace(odd_url.find('\x01'), 1, "%01");
    log_capture log;
    for (const std::string& url : {pipe.url(), pipe_in_capitals, odd_url, std::string{"file:///dev/zero"},
                                   std::string{"file:///proc/self/status"}, std::string{"file:///proc/kmsg"},
                                   std::string{"file:///sys/kernel/uevent_seqnum"},
                                   std::string{"file:///dev/%7Aero"}, std::string{"file:///"}}) {
        SCOPED_TRACE(url);
        EXPECT_EQ(text_of(image_download(url.c_str(), lenient)), "(none)");
        EXPECT_THAT(log.messages("main"), ElementsAre(unreadable_file));
    }
}

// --- several threads, and the end of the daemon

TEST(image_download, fifth_caller_waits_no_longer_than_its_time_out)
{
    http_responder server{
        {{"/held", {http_image("held"), pace::after_release}}, {"/other", {http_image("other")}}}};
    log_capture log;
    std::vector<std::future<std::optional<downloaded_image>>> first;
    for (int i = 0; i < transfers_at_once; ++i)
        first.push_back(std::async(std::launch::async,
                                   [&] { return image_download(server.url("/held").c_str(), lenient); }));
    ASSERT_TRUE(server.wait_for_requests(transfers_at_once));

    EXPECT_EQ(text_of(image_download(server.url("/other").c_str(), with_timeout(150ms))), "(none)");
    EXPECT_THAT(log.messages("main"), ElementsAre(timed_out));
    EXPECT_EQ(server.requests().size(), 4u); // the fifth one never got as far as asking

    server.release();
    for (auto& held : first)
        EXPECT_EQ(text_of(held.get()), "held");
    EXPECT_EQ(text_of(image_download(server.url("/other").c_str(), lenient)), "other");
}

TEST(image_download, no_more_than_four_downloads_of_many_threads_overlap)
{
    http_responder server{{{"/a", {http_image("from a")}}, {"/bb", {http_image("this is from bb")}}}};
    constexpr int rounds = 10;
    const auto download_often = [&](const char* path) {
        int right = 0;
        for (int i = 0; i < rounds; ++i)
            right += text_of(image_download(server.url(path).c_str(), strict)) ==
                     (path[1] == 'a' ? "from a" : "this is from bb");
        return right;
    };
    std::vector<std::future<int>> callers;
    for (const char* path : {"/a", "/bb", "/a", "/bb", "/a", "/bb", "/a", "/bb"})
        callers.push_back(std::async(std::launch::async, download_often, path));
    for (auto& caller : callers)
        EXPECT_EQ(caller.get(), rounds);
    EXPECT_EQ(server.requests().size(), 8u * rounds);
    EXPECT_LE(server.most_at_once(), 4u);
}

TEST(image_download, failed_download_does_not_keep_its_turn)
{
    http_responder server{{{"/bad", {http_ok("", "abc")}}, {"/good", {http_image("good")}}}};
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(image_download(server.url("/bad").c_str(), lenient));
        EXPECT_EQ(text_of(image_download(server.url("/good").c_str(), with_timeout(5s))), "good");
    }
}

TEST(image_download, end_of_the_daemon_ends_a_transfer_and_the_wait_for_one)
{
    http_responder server{{{"/held", {http_image("held"), pace::after_release}}}};
    log_capture log;
    const auto begin = std::chrono::steady_clock::now();
    const auto download = [&] { return image_download(server.url("/held").c_str(), lenient); };
    auto running = std::async(std::launch::async, download);
    ASSERT_TRUE(server.wait_for_requests(1));
    auto waiting = std::async(std::launch::async, download);
    const counted since;
    const stop_for_one_test stop;
    EXPECT_EQ(text_of(running.get()), "(none)");
    EXPECT_EQ(text_of(waiting.get()), "(none)");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s); // far below the time-out
    EXPECT_THAT(log.messages("main"), ElementsAre(aborted, aborted));
    EXPECT_EQ(since.of(transfer_outcome::stopped), 2U);
    EXPECT_EQ(since.all(), 2U);
}

TEST(image_download, nothing_is_fetched_any_more_once_the_daemon_ends)
{
    const temp_file file{"late.bin", std::string(100'000, 'x')};
    http_responder server{{{"/image.bin", {http_image("abc"), pace::then_stall}}}};
    log_capture log;
    const stop_for_one_test stop;
    for (const std::string& url : {server.url("/image.bin"), file.url()}) {
        EXPECT_FALSE(image_download(url.c_str(), lenient));
        EXPECT_THAT(log.messages("main"), ElementsAre(aborted));
    }
}

} // namespace rtls
