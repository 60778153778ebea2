// ota - the store of node firmware images that are served page by page.
//
// Ownership  The store owns its images; what it hands out are copies.
// Threads    Any: the store guards itself with one mutex, and transfers run outside it.
// Failures   Logged; a failed download leaves the store unchanged.
#pragma once

#include <cstddef>
#include <cstdint>

namespace rtls {

struct OTA_FIRMWARE_INFO_t {
    size_t size;    // bytes; of an image being assembled, its capacity
    uint32_t crc32; // with git_ver, the image's key
    uint8_t board_version;
    uint8_t board_revision;
    uint32_t git_ver;
    uint16_t page_size;
    uint16_t maximum_pages;
};

// Page sizes are multiples of 32 bytes, the unit in which the store keeps account of what it holds; other
// sizes are refused. 0 is one of them: such a page has no content, and is there when its image is. Images,
// downloaded or assembled, have at most 64 MiB.

// A store of `files_number` empty slots, or nullptr.
void* ota_new(uint16_t files_number);
void ota_destroy(void** pp_ota);

// Downloads, checks and stores an image; its slot, or -1. `crc32` and `git_ver` are what to expect;
// null: not checked. An image with the same key is replaced in place, otherwise it takes
// the next slot in turn, whatever is in it: slots emptied by a delete are not preferred.
int ota_download_firmware(void* p_ota, const char* url, const uint32_t* crc32, const uint32_t* git_ver);

// False when the index is out of range or the slot is empty.
bool ota_get_firmware_info(void* p_ota, uint16_t index, OTA_FIRMWARE_INFO_t* info);
bool ota_del_firmware(void* p_ota, uint16_t index);

// The number of slots.
uint16_t ota_get_files_number(void* p_ota);

// Copies one page of the image (git_id, crc32) into `bufer`, page_size bytes, padded with 0xFF past
// the image's end. False when the image or the page is not there.
bool ota_get_firmware_page(void* p_ota, uint32_t git_id, uint32_t crc32, uint32_t page_size,
                           uint32_t page_number, uint8_t* bufer);

// Stores one page of an image under assembly, which is made if it is new. False when refused, as for a
// downloaded image. A page that is there already keeps its first content. An image under assembly is
// never closed: whoever sends the pages knows when it is whole.
bool ota_set_firmware_page(void* p_ota, uint32_t git_id, uint32_t crc32, uint32_t page_size,
                           uint32_t page_number, const uint8_t* buffer);

} // namespace rtls
