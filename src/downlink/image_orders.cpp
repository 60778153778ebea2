#include "downlink/image_orders.h"

#include "base/common.h"
#include "base/logger.h"
#include "downlink/update_announcement.h"
#include "firmware/firmware.h"
#include "firmware/ota.h"

#include <memory>
#include <new>
#include <string>
#include <utility>

namespace rtls {

static constexpr char of_store[] = "store";
static constexpr char of_announcement[] = "announcement";

namespace {

// What has been fetched, or why there is nothing, on its way between the threads.
struct store_outcome {
    int index = -1;
    std::string url;
    std::string reason;
};
struct announced_outcome {
    firmware_ptr firmware;
    std::string reason;
};

} // namespace

// Has `fetch` done on a thread of the pool, and `then` on ours, for which all is there before the order is. Both
// are freed when they cannot be done, and `otherwise` is done at once.
template <typename Fetch, typename Then, typename Otherwise>
static void fetch_elsewhere(WIN_SERVER_t& server, const char* lane, Fetch fetch, Then then,
                            Otherwise otherwise)
{
    if (!server.calls || !server.rtls_gateway->downloads) {
        fetch();
        then();
        return;
    }
    auto work = [fetch = std::move(fetch), then = prepared_call{std::move(then)},
                 calls = server.calls]() mutable {
        try {
            fetch();
        } catch (const std::bad_alloc&) {
            logger_error(g_logger, str_out_of_memory, "image_orders");
        }
        calls->post(std::move(then));
    };
    if (!server.rtls_gateway->downloads->order(std::move(work), lane))
        otherwise();
}

static void note_not_taken(const WIN_SERVER_t& server)
{
    if (server.rtls_gateway->downloads)
        server.rtls_gateway->downloads->note_not_taken();
}

// Why there is no image goes to those who look for it; the lines of the orders stay as they are.
static void print_reason(WIN_SERVER_t& server, const char* url, const char* reason)
{
    if (*reason)
        dbg_print(server.dbg_client_sock, DBG_DEVELOP, "PROXY", "%s: %s", url, reason);
}

// A server's order for the tap: it begins, and ends.
static void tap_begun(WIN_SERVER_t& server, const char* url, const char* purpose) noexcept
{
    if (server.tap.takes(tap_class::event))
        server.tap.publish(tap_event{"download_begun"}.text("url", url).text("purpose", purpose));
}

static void tap_ended(WIN_SERVER_t& server, const char* url, const char* purpose,
                      const char* outcome) noexcept
{
    if (server.tap.takes(tap_class::event))
        server.tap.publish(
            tap_event{"download_ended"}.text("url", url).text("purpose", purpose).text("outcome", outcome));
}

static void tap_store_ended(WIN_SERVER_t& server, const char* url, int index) noexcept
{
    tap_ended(server, url, of_store, index >= 0 ? "stored" : "failed");
    if (index >= 0 && server.tap.takes(tap_class::event))
        server.tap.publish(tap_event{"image_stored"}
                               .number("index", static_cast<uint64_t>(index))
                               .text("url", url)
                               .text("purpose", of_store));
}

static void print_stored(WIN_SERVER_t& server, int index)
{
    if (index == -1)
        dbg_print(server.dbg_client_sock, DBG_PARSING, "PROXY", "Failed to read firmware!");
    else // the newline is part of the line
        dbg_print(server.dbg_client_sock, DBG_PARSING, "PROXY", str_firmware_downloaded, index);
}

void fetch_for_store(WIN_SERVER_t& server, const char* url, uint32_t git_ver, uint32_t crc32)
try {
    tap_begun(server, url, of_store);
    auto outcome = std::make_shared<store_outcome>();
    outcome->url = url;
    fetch_elsewhere(
        server, "",
        [=, ota = server.ota()] {
            if (ota)
                outcome->index =
                    ota->download_firmware(outcome->url.c_str(), &crc32, &git_ver, &outcome->reason);
        },
        [=, &server] {
            print_reason(server, outcome->url.c_str(), outcome->reason.c_str());
            print_stored(server, outcome->index);
            tap_store_ended(server, outcome->url.c_str(), outcome->index);
        },
        [&] {
            print_reason(server, url, str_not_ordered);
            print_stored(server, -1);
            tap_store_ended(server, url, -1);
        });
} catch (const std::bad_alloc&) {
    logger_error(g_logger, str_out_of_memory, __func__);
    note_not_taken(server);
    print_stored(server, -1);
    tap_store_ended(server, url, -1);
}

static void adopt(WIN_SERVER_t& server, const char* url, firmware_ptr firmware, uint32_t announced_crc,
                  uint32_t printed_crc)
{
    zsock_t* dbg = server.dbg_client_sock;
    if (!firmware) {
        dbg_print(dbg, DBG_PARSING, "PROXY", "MSG_FW_IMAGE_AVAIL_IND cannot get firmware from: %s", url);
        return tap_ended(server, url, of_announcement, "failed");
    }
    const uint32_t computed = firmware->crc32;
    server.rtls_gateway->firmware.set(firmware.release());
    if (announced_crc != 0 && announced_crc != computed) {
        server.rtls_gateway->firmware.set(nullptr);
        dbg_print(dbg, DBG_PARSING, "PROXY",
                  "MSG_FW_IMAGE_AVAIL_IND bad crc32 sum: s:%08X d:%08X, firmware removed", printed_crc,
                  computed);
        return tap_ended(server, url, of_announcement, "wrong_crc");
    }
    update_command_to_all(server);
    tap_ended(server, url, of_announcement, "current");
}

void fetch_announced(WIN_SERVER_t& server, const char* url, uint32_t announced_crc, uint32_t printed_crc)
try {
    tap_begun(server, url, of_announcement);
    auto outcome = std::make_shared<announced_outcome>();
    auto text = std::make_shared<const std::string>(url);
    fetch_elsewhere(
        server, "announcement",
        [=] { outcome->firmware.reset(firmware_fetch(text->c_str(), &outcome->reason)); },
        [=, &server] {
            print_reason(server, text->c_str(), outcome->reason.c_str());
            adopt(server, text->c_str(), std::move(outcome->firmware), announced_crc, printed_crc);
        },
        [&] {
            print_reason(server, url, str_not_ordered);
            adopt(server, url, nullptr, announced_crc, printed_crc);
        });
} catch (const std::bad_alloc&) {
    logger_error(g_logger, str_out_of_memory, __func__);
    note_not_taken(server);
    adopt(server, url, nullptr, announced_crc, printed_crc);
}

} // namespace rtls
