#include "firmware/firmware.h"

#include "base/common.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "firmware/crc32.h"
#include "firmware/image_download.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace rtls {

static constexpr size_t page_bytes = sizeof(gwMsgUpdateRequest_t::buf);

// The version in the name of an image file, "obn-node.<eight hex digits>.bin"; 0 when there is none.
static uint32_t setVersion(const char* fname)
{
    const posix_regex pattern{"obn-node\\.(.{8,8})\\.bin", REG_EXTENDED | REG_ICASE};
    if (!pattern.is_compiled()) {
        logger_error(g_logger, "%s error regcomp %s", __func__, errno_text{errno}.c_str());
        return 0;
    }
    std::array<regmatch_t, 2> groups{};
    if (!pattern.search(fname, groups)) {
        logger_warning(g_logger, "cannot set firmware version");
        return 0;
    }
    // The dot behind the eight characters ends the number, and so does any character that is no digit.
    return static_cast<uint32_t>(std::strtol(fname + groups[1].rm_so, nullptr, 16));
}

FIRMWARE_t* firmware_get_from_url(const char* url)
{
    return any_null(__func__, url) ? nullptr : firmware_fetch(url, nullptr);
}

FIRMWARE_t* firmware_fetch(const char* url, std::string* reason)
{
    static constexpr char reporter[] = "firmware_get_from_url";
    firmware_ptr firmware{new (std::nothrow) FIRMWARE_t{}};
    if (!firmware) {
        image_download_not_begun();
        logger_error(g_logger, str_out_of_memory, reporter);
        note_reason(reason, "out of memory");
        return nullptr;
    }
    const char* name = basename(url); // the C library's own, which leaves the text as it is
    if (!name) {
        logger_warning(g_logger, "%s: basename error on: %s", reporter, url);
        note_reason(reason, "the URL names no file");
        return nullptr;
    }
    firmware->name.reset(strdup(name)); // the URL may be gone before the image is
    if (!firmware->name) {
        logger_error(g_logger, str_out_of_memory, reporter);
        return nullptr;
    }

    auto image = image_download(url, {.caller = reporter, .reason = reason});
    if (!image)
        return nullptr;
    firmware->memory = std::move(image->memory);
    firmware->size = image->size;
    firmware->crc32 = crc32_uninverted({firmware->memory.get(), firmware->size});
    firmware->version = setVersion(firmware->name);
    logger_info(g_logger, "firmware image: %s crc: %04X version: %04X len: %lu", firmware->name.get(),
                firmware->crc32, firmware->version, firmware->size);
    return firmware.release();
}

bool firmware_msg_pack(FIRMWARE_t* firmware, gwMsgUpdateRequest_t* msg)
{
    if (any_null(__func__, msg))
        return false;
    msg->len = 0;
    if (!firmware) {
        logger_error(g_logger, "%s: no firmware!", __func__);
        msg->flag = ENO_FIRMWARE;
        return true;
    }
    msg->ver = firmware->version;
    const size_t offset = size_t{msg->num} * page_bytes;
    if (offset >= firmware->size) {
        const unsigned int num = msg->num;
        logger_warning(g_logger, "error seek: size:%lu want get: %u num", firmware->size, num);
        msg->flag = EOF_FIRMWARE;
        return true;
    }

    // A full page leaves the flag to the caller, even the last one: its end is told by the page after.
    const size_t length = std::min(firmware->size - offset, page_bytes);
    if (length < page_bytes)
        msg->flag = EOF_FIRMWARE;
    msg->len = static_cast<uint16_t>(length);
    std::memset(msg->buf, 0xFF, page_bytes);
    std::memcpy(msg->buf, firmware->memory + offset, length);
    msg->crc32 = crc32_uninverted(msg->buf);
    return true;
}

void firmware_destroy(void** pp_firmware)
{
    if (any_null(__func__, pp_firmware))
        return;
    delete static_cast<FIRMWARE_t*>(std::exchange(*pp_firmware, nullptr));
}

void current_firmware::set(FIRMWARE_t* firmware)
{
    firmware_ptr{m_firmware.exchange(firmware, std::memory_order_relaxed)}.reset();
}

} // namespace rtls
