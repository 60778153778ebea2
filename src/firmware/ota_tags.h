// ota_tags - what a firmware image says of itself: two tagged records somewhere among its bytes.
//
// Both search the whole image for the first occurrence of their tag, fill in what its record says, and
// report a tag that is missing or whose record is cut off by the image's end. Big-endian.
// Threads    Any; no lock, nothing waits.
#pragma once

#include "base/bytes.h"
#include "firmware/ota.h"

namespace rtls {

bool read_board_tag(bytes_view image, OTA_FIRMWARE_INFO_t& info);    // board_version, board_revision
bool read_firmware_tag(bytes_view image, OTA_FIRMWARE_INFO_t& info); // git_ver, page_size, maximum_pages

} // namespace rtls
