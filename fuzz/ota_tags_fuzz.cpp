// Fuzzes the search for tags in an image: its bytes are whatever a server sent.
#include "firmware/ota_tags.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <span>
#include <vector>

namespace rtls {

static constexpr char board_tag[] = "@BoardVer"; // with their terminating zeros
static constexpr char firmware_tag[] = "@Firmware";

// Writes what fits of the tag at the place given: chance alone never makes one.
static void plant(std::vector<uint8_t>& image, std::span<const char> tag, size_t at)
{
    if (at < image.size())
        std::copy_n(tag.begin(), std::min(tag.size(), image.size() - at),
                    image.begin() + static_cast<ptrdiff_t>(at));
}

// Where the record behind the first tag begins, if all of it is there; found the plain way.
static std::optional<size_t> record_of(const std::vector<uint8_t>& image, std::span<const char> tag,
                                       size_t size)
{
    const auto found = std::search(image.begin(), image.end(), tag.begin(), tag.end());
    const auto rest = static_cast<size_t>(image.end() - found);
    if (rest < tag.size() + size)
        return std::nullopt;
    return static_cast<size_t>(found - image.begin()) + tag.size();
}

static void require(bool condition)
{
    if (!condition)
        std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    std::vector<uint8_t> image(data + 2, data + size);
    plant(image, board_tag, data[0]);
    plant(image, firmware_tag, data[1]);

    OTA_FIRMWARE_INFO_t info{};
    const auto board = record_of(image, board_tag, 2);
    require(read_board_tag(image, info) == board.has_value());
    if (board)
        require(info.board_version == image[*board] && info.board_revision == image[*board + 1]);
    const auto firmware = record_of(image, firmware_tag, 8);
    require(read_firmware_tag(image, info) == firmware.has_value());
    if (firmware)
        require(info.git_ver == load_be32(image, *firmware) &&
                info.page_size == load_be16(image, *firmware + 4) &&
                info.maximum_pages == load_be16(image, *firmware + 6));
    return 0;
}

} // namespace rtls
