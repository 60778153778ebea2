#include "downlink/page_interception.h"

#include "base/logger.h"
#include "base/null_check.h"
#include "firmware/ota.h"
#include "wire/ota_pages.h"

namespace rtls {

// Whether the bytes at hand hold a whole page, and the request says that it carries one.
static bool carries_firmware_page(bytes_view request)
{
    if (request.size() < ota_page::size)
        return false;
    const size_t total_len = load_be16(request, msgHeader_t::total_len);
    const size_t page_size = load_be16(request, ota_page::page_size);
    return total_len > ota_page::total_len && load_be16(request, ota_page::command) == GENERIC_REQ_OtaPage &&
           total_len >= page_size + ota_page::total_len && request.size() >= page_size + ota_page::size;
}

bool firmware_interception(WIN_SERVER_t* server, const uint8_t* buf, size_t parsedlen)
{
    if (any_null(__func__, server, buf))
        return false;
    OTA_t* ota = server->ota();
    if (!ota) {
        logger_error(g_logger, str_no_ota, __func__);
        return false;
    }
    const bytes_view request{buf, parsedlen};
    if (!carries_firmware_page(request))
        return false;
    const auto page = read_ota_page_request(request); // the same head
    const bool is_stored = page && ota->set_firmware_page(page->git_id, page->crc32, page->page_size,
                                                          page->page_number, request.data() + ota_page::size);
    server->counts.pages_seen[is_stored ? page_seen_outcome::stored : page_seen_outcome::refused].add();
    return is_stored;
}

} // namespace rtls
