#include "terminal/image_fetch.h"

#include "base/common.h"
#include "base/logger.h"
#include "base/peer.h"
#include "server/tap_watch.h"
#include "terminal/client.h"
#include "terminal/reply.h"
#include "terminal/terminal_server_private.h"
#include "terminal/texts.h"

#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>

namespace rtls {

// Whether the system knows the operator's connection no more.
static bool is_gone(const TERMINAL_SERVER_t& server, const TERMINAL_CLIENT_t& client)
{
    sockaddr_in peer{};
    return !read_peer_address(client.fd, server.port, peer) ||
           peer.sin_addr.s_addr != client.client_addr.sin_addr.s_addr ||
           peer.sin_port != client.client_addr.sin_port;
}

std::string fetch_answer(int index)
{
    return index >= 0 ? text_format(str_firmware_downloaded, index) : "Failed to read firmware!\n";
}

namespace {

// What has been fetched, or why there is nothing, on its way between the threads.
struct outcome {
    std::string url;
    std::string operator_id;
    int index = -1;
    std::string reason;
};

} // namespace

static void print_reason(TERMINAL_SERVER_t& server, const char* url, const char* reason)
{
    if (*reason)
        dbg_print(server.dbg_client_sock.get(), DBG_DEVELOP, console, "%s: %s", url, reason);
}

static void tap_download(TERMINAL_SERVER_t& server, tap_event& event, const std::string& url) noexcept
{
    tap_from_elsewhere(server.rtls_gateway->win_server, event.text("url", url).text("purpose", "operator"));
}

static void tap_begun(TERMINAL_SERVER_t& server, const char* url)
{
    if (!has_tap(server.rtls_gateway->win_server))
        return;
    tap_event begun{"download_begun"};
    tap_download(server, begun, url);
}

static void tap_ended(TERMINAL_SERVER_t& server, const outcome& fetched) noexcept
{
    if (!has_tap(server.rtls_gateway->win_server))
        return;
    tap_event ended{"download_ended"};
    tap_download(server, ended.text("outcome", fetched.index >= 0 ? "stored" : "failed"), fetched.url);
    if (fetched.index < 0)
        return;
    tap_event stored{"image_stored"};
    tap_download(server, stored.number("index", static_cast<uint64_t>(fetched.index)), fetched.url);
}

static void tell(TERMINAL_SERVER_t& server, const outcome& fetched)
{
    tap_ended(server, fetched);
    print_reason(server, fetched.url.c_str(), fetched.reason.c_str());
    server.fetch_ended(server, fetched.operator_id, fetched.index);
}

// All that telling the outcome takes is there before the order is: his commands wait for it.
static std::function<void()> make_order(TERMINAL_SERVER_t& server, const TERMINAL_CLIENT_t& client,
                                        const char* url)
{
    auto fetched = std::make_shared<outcome>();
    fetched->url = url;
    fetched->operator_id = identity_key{client.id.get()}.c_str();
    prepared_call then{[&server, fetched] { tell(server, *fetched); }};
    return [ota = server.rtls_gateway->ota, calls = server.calls, fetched, then = std::move(then)]() mutable {
        try {
            if (ota)
                fetched->index =
                    ota->download_firmware(fetched->url.c_str(), nullptr, nullptr, &fetched->reason);
        } catch (const std::bad_alloc&) {
            logger_error(g_logger, str_out_of_memory, "fetch_image");
        }
        calls->post(std::move(then));
    };
}

bool fetch_image(TERMINAL_SERVER_t& server, TERMINAL_CLIENT_t& client, const char* url)
{
    if (!server.calls || !server.rtls_gateway->downloads)
        return false;
    if (is_gone(server, client))
        return true; // nobody would see the outcome
    tap_begun(server, url);
    client.is_fetching = server.rtls_gateway->downloads->order(make_order(server, client, url), {},
                                                               download_pool::customer::operators);
    if (!client.is_fetching) {
        tap_ended(server, {.url = url, .operator_id = {}, .index = -1, .reason = {}});
        print_reason(server, url, str_not_ordered);
        terminal_send(client, server.terminal_sock.get(), fetch_answer(-1).c_str());
    }
    return true;
}

} // namespace rtls
