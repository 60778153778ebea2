// ota_store - firmware images for tests of the store, and the store's calls with tests' own types.
//
// Threads    Any, as the store itself. What fails is answered as the store answers it.
#pragma once

#include "base/czmq_ptr.h"
#include "firmware/ota.h"
#include "support/hex_bytes.h"

#include <optional>
#include <string>
#include <vector>

namespace rtls {

using store_ptr = std::unique_ptr<void, destroyed_by<ota_destroy>>;

store_ptr store_of(uint16_t files_number);

// "@BoardVer": version 1, revision 2. "@Firmware": the version given, pages of 128 bytes, at most 64.
std::string board_tag();

std::string firmware_tag(uint32_t git_ver);

// Tags, then bytes that count up, `size` bytes in all.
std::string image_of(uint32_t git_ver, size_t size = 1000);

uint32_t crc_of(const std::string& image);

int download(const store_ptr& store, const std::string& image, std::optional<uint32_t> crc32 = {},
             std::optional<uint32_t> git_ver = {});

bool is_same(const OTA_FIRMWARE_INFO_t& a, const OTA_FIRMWARE_INFO_t& b);

// What is in the slots, by git_ver; 0 for an empty slot.
std::vector<uint32_t> slots(const store_ptr& store);

size_t size_of_slot(const store_ptr& store, uint16_t index);

// A page, or nothing; checks that not a byte more than the page is written.
std::optional<bytes_t> get_page(const store_ptr& store, uint32_t git_id, uint32_t crc32, uint32_t page_size,
                                uint32_t page_number);

bool set_page(const store_ptr& store, uint32_t git_id, uint32_t crc32, uint32_t page_number,
              const bytes_t& page);

} // namespace rtls
