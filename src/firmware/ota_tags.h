// ota_tags - what a firmware image says of itself: two tagged records somewhere among its bytes.
//
// Both search the whole image for the first occurrence of their tag, and fill in what its record says.
// Threads    Any; no lock, nothing waits.
// Bytes      Big-endian.
// Failures   A tag that is missing, or whose record is cut off by the image's end, is logged and answered
//            with false. Nothing throws.
#pragma once

#include "base/bytes.h"
#include "firmware/ota.h"

namespace rtls {

bool read_board_tag(bytes_view image, OTA_FIRMWARE_INFO_t& info);    // board_version, board_revision
bool read_firmware_tag(bytes_view image, OTA_FIRMWARE_INFO_t& info); // git_ver, page_size, maximum_pages

} // namespace rtls
