#include "firmware/firmware.h"

#include "base/common.h"
#include "base/czmq_ptr.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "firmware/image_download.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <span>

namespace rtls {

static constexpr size_t page_bytes = sizeof(gwMsgUpdateRequest_t::buf);

static constexpr std::array<uint32_t, 256> make_crc32_table()
{
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < table.size(); ++i) {
        uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 1) != 0 ? value >> 1 ^ 0xEDB88320 : value >> 1;
        table[i] = value;
    }
    return table;
}

// Reflected polynomial of IEEE 802.3.
static constexpr std::array<uint32_t, 256> crc32table = make_crc32_table();

// The nodes' own rule: no inversion before or after, unlike crc32_byte. They check pages with it.
static unsigned int crc32(std::span<const uint8_t> bytes, unsigned int crc)
{
    for (const uint8_t value : bytes)
        crc = crc32table[(crc ^ value) & 0xFF] ^ crc >> 8;
    return crc;
}

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
    if (any_null(__func__, url))
        return nullptr;
    using firmware_ptr = std::unique_ptr<void, destroyed_by<firmware_destroy>>;
    firmware_ptr owner{new (std::nothrow) FIRMWARE_t{}};
    if (!owner) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return nullptr;
    }
    auto* firmware = static_cast<FIRMWARE_t*>(owner.get());
    firmware->name = basename(url); // the C library's own, which leaves the text as it is
    if (firmware->name == nullptr) {
        logger_warning(g_logger, "%s: basename error on: %s", __func__, url);
        return nullptr;
    }

    auto image = image_download(url, {.caller = __func__});
    if (!image)
        return nullptr;
    firmware->memory = image->memory.release();
    firmware->size = image->size;
    firmware->crc32 = crc32({firmware->memory, firmware->size}, 0);
    firmware->version = setVersion(firmware->name);
    logger_info(g_logger, "firmware image: %s crc: %04X version: %04X len: %lu", firmware->name,
                firmware->crc32, firmware->version, firmware->size);
    return static_cast<FIRMWARE_t*>(owner.release());
}

bool firmware_msg_pack(FIRMWARE_t* firmware, gwMsgUpdateRequest_t* msg)
{
    if (any_null(__func__, msg))
        return false;
    msg->len = 0;
    if (firmware == nullptr) {
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
    msg->crc32 = crc32(msg->buf, 0);
    return true;
}

void firmware_destroy(void** pp_firmware)
{
    if (any_null(__func__, pp_firmware))
        return;
    auto* firmware = static_cast<FIRMWARE_t*>(*pp_firmware);
    *pp_firmware = nullptr;
    if (firmware == nullptr)
        return;
    std::free(firmware->memory);
    delete firmware;
}

void current_firmware::set(FIRMWARE_t* firmware)
{
    void* old = m_firmware.exchange(firmware, std::memory_order_relaxed);
    firmware_destroy(&old);
}

} // namespace rtls
