#include "firmware/ota_tags.h"

#include "base/logger.h"

#include <cstring>
#include <span>

namespace rtls {

// Their terminating zero belongs to the tags: the words alone stand elsewhere in images, too.
static constexpr char board_tag[] = "@BoardVer";
static constexpr char firmware_tag[] = "@Firmware";

namespace board_record { // behind its tag
static constexpr size_t board_version = 0;
static constexpr size_t board_revision = 1;
static constexpr size_t size = 2;
} // namespace board_record

namespace firmware_record { // behind its tag; big-endian
static constexpr size_t git_ver = 0;
static constexpr size_t page_size = 4;
static constexpr size_t maximum_pages = 6;
static constexpr size_t size = 8;
} // namespace firmware_record

// The `size` bytes behind the first `tag`, or nothing when they are not all there.
static bytes_view find_record(bytes_view image, std::span<const char> tag, size_t size)
{
    if (image.size() < tag.size())
        return {};
    const void* found = memmem(image.data(), image.size(), tag.data(), tag.size());
    if (found == nullptr)
        return {};
    const auto at = static_cast<size_t>(static_cast<const uint8_t*>(found) - image.data()) + tag.size();
    return image.size() - at >= size ? image.subspan(at, size) : bytes_view{};
}

bool read_board_tag(bytes_view image, OTA_FIRMWARE_INFO_t& info)
{
    const bytes_view record = find_record(image, board_tag, board_record::size);
    if (record.empty()) {
        logger_error(g_logger, "tag \"@BoardVer\" not found in firmware!");
        return false;
    }
    info.board_version = record[board_record::board_version];
    info.board_revision = record[board_record::board_revision];
    return true;
}

bool read_firmware_tag(bytes_view image, OTA_FIRMWARE_INFO_t& info)
{
    const bytes_view record = find_record(image, firmware_tag, firmware_record::size);
    if (record.empty()) {
        logger_error(g_logger, "tag \"@Firmware\" not found in firmware!");
        return false;
    }
    info.git_ver = load_be32(record, firmware_record::git_ver);
    info.page_size = load_be16(record, firmware_record::page_size);
    info.maximum_pages = load_be16(record, firmware_record::maximum_pages);
    return true;
}

} // namespace rtls
