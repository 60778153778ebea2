// Fuzzes the search for tags in an image: its bytes are whatever a server sent.
#include "ota_tags.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

static bool contains(bytes_view image, std::string_view tag)
{
    return std::search(image.begin(), image.end(), tag.begin(), tag.end()) != image.end();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const bytes_view image{data, size};
    OTA_FIRMWARE_INFO_t info{};
    if (read_board_tag(image, info) && !contains(image, {"@BoardVer", 10}))
        std::abort();
    if (read_firmware_tag(image, info) && !contains(image, {"@Firmware", 10}))
        std::abort();
    return 0;
}
