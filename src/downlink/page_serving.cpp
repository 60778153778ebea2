#include "downlink/page_serving.h"

#include "base/logger.h"
#include "base/null_check.h"
#include "downlink/generic_requests.h"
#include "firmware/ota.h"
#include "wire/ota_pages.h"

#include <memory>
#include <new>

namespace rtls {

static page_request_outcome serve_page(WIN_SERVER_t& server, WIN_CLIENT_t& asking, bytes_view message,
                                       const uint8_t* node_mac)
{
    constexpr char function[] = "send_otapage_from_cache";
    const OTA_t* ota = server.ota();
    if (!ota) {
        logger_error(g_logger, str_no_ota, function);
        return page_request_outcome::not_found;
    }
    const auto request = read_ota_page_request(message);
    if (!request)
        return page_request_outcome::not_found;

    const size_t size = ota_response_size(request->page_size);
    const std::unique_ptr<uint8_t[]> response{new (std::nothrow) uint8_t[size]};
    if (!response) {
        logger_error(g_logger, str_out_of_memory, function);
        return page_request_outcome::not_found;
    }
    write_ota_response_frame(message, node_mac, {response.get(), size});
    if (!ota->get_firmware_page(request->git_id, request->crc32, request->page_size, request->page_number,
                                response.get() + ota_response_page))
        return page_request_outcome::not_found;
    const command_outcome outcome = forward_generic(server, {response.get(), size}, &asking);
    const bool is_on_its_way = outcome == command_outcome::sent || outcome == command_outcome::cached;
    return is_on_its_way ? page_request_outcome::served : page_request_outcome::refused;
}

bool send_otapage_from_cache(WIN_SERVER_t* server, WIN_CLIENT_t& asking, bytes_view message,
                             const uint8_t* node_mac)
{
    if (any_null(__func__, server, message.data(), node_mac) || any_null(__func__, server->rtls_gateway))
        return false;
    const page_request_outcome outcome = serve_page(*server, asking, message, node_mac);
    server->counts.page_requests[outcome].add();
    // Whether the forwarder takes it (an answer above its limit it refuses) makes no difference: the
    // image is ours, so the servers are not asked.
    return outcome != page_request_outcome::not_found;
}

} // namespace rtls
