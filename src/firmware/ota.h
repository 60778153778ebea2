// ota - the store of node firmware images that are served page by page.
//
// Ownership  The store owns its images; what it hands out are copies.
// Threads    Any: the store guards itself with one mutex, and transfers run outside it.
// Failures   Logged; a failed download leaves the store unchanged.
#pragma once

#include "base/czmq_ptr.h"
#include "base/rate_bound.h"

#include "core/thread_annotations.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

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

struct OTA_FIRMWARE_t; // an image in the store: private to ota.cpp

// Page sizes are multiples of 32 bytes, the unit in which the store keeps account of what it holds; other
// sizes are refused. 0 is one of them: such a page has no content, and is there when its image is. Images,
// downloaded or assembled, have at most 64 MiB.

// Room in bytes that an image under assembly begins with, and that it gains at least when it grows.
inline constexpr size_t ota_growth_bytes = size_t{256} * 1024;

// What an order to download an image into the store ends with: its slot.
inline constexpr char str_firmware_downloaded[] = "Firmware downloaded. Index: %d\n";

// The store. Its functions take its lock themselves.
class OTA_t {
public:
    // A store of `files_number` empty slots. Throws std::bad_alloc.
    explicit OTA_t(uint16_t files_number);
    ~OTA_t();
    OTA_t(const OTA_t&) = delete;
    OTA_t& operator=(const OTA_t&) = delete;

    // From now on a download that no server ordered takes no slot with an image that one did, or sent. Before
    // the store is used by several threads.
    void keep_ordered() { m_keeps_ordered = true; }
    // How many images found no slot by that, of which the first one of an episode is said. Any thread reads.
    uint64_t refused_for_ordered() const noexcept { return m_refused.load(std::memory_order_relaxed); }

    // Downloads, checks and stores an image; its slot, or -1. `crc32` and `git_ver` are what to expect;
    // null: not checked. An image with the same key is replaced in place, otherwise it takes
    // the next slot in turn, whatever is in it: slots emptied by a delete are not preferred.
    // Blocks its caller while the transfer lasts.
    // `reason`, if given, gets why there is no image.
    int download_firmware(const char* url, const uint32_t* crc32, const uint32_t* git_ver,
                          std::string* reason = nullptr);

    // Nothing when the index is out of range or the slot is empty.
    std::optional<OTA_FIRMWARE_INFO_t> firmware_info(uint16_t index) const;
    // False when the index is out of range or the slot is empty.
    bool del_firmware(uint16_t index);

    // The number of slots.
    uint16_t files_number() const { return m_files_number; }

    // Copies one page of the image (git_id, crc32) into `bufer`, page_size bytes, padded with 0xFF past
    // the image's end. False when the image or the page is not there.
    bool get_firmware_page(uint32_t git_id, uint32_t crc32, uint32_t page_size, uint32_t page_number,
                           uint8_t* bufer) const;

    // Stores one page, of page_size bytes, of an image under assembly, which is made if it is new. False
    // when refused, as for a downloaded image. A page that is there already keeps its first content. An
    // image under assembly is never closed: whoever sends the pages knows when it is whole.
    bool set_firmware_page(uint32_t git_id, uint32_t crc32, uint32_t page_size, uint32_t page_number,
                           const uint8_t* buffer);

private:
    using firmware_ptr = std::unique_ptr<OTA_FIRMWARE_t>;

    size_t find_slot(uint32_t git_ver, uint32_t crc32) const RTLS_REQUIRES(m_mutex);
    OTA_FIRMWARE_t* find_firmware(uint32_t git_ver, uint32_t crc32) const RTLS_REQUIRES(m_mutex);
    bool may_take(size_t slot, const OTA_FIRMWARE_t& firmware) const RTLS_REQUIRES(m_mutex);
    size_t choose_slot(const OTA_FIRMWARE_t& firmware) RTLS_REQUIRES(m_mutex);
    int add_firmware(firmware_ptr firmware) RTLS_REQUIRES(m_mutex);
    int store_downloaded(firmware_ptr firmware, std::string* reason);

    mutable annotated_mutex m_mutex;
    const uint16_t m_files_number;
    bool m_keeps_ordered = false; // written before the actors run
    std::atomic<uint64_t> m_refused{0};
    refusal_episode m_refusals RTLS_GUARDED_BY(m_mutex);
    // The slots; null: empty. Images are reached only under the lock.
    const std::unique_ptr<firmware_ptr[]> m_firmware_arr RTLS_GUARDED_BY(m_mutex);
    // The slot that the next new image takes, whatever is in it.
    uint16_t m_index RTLS_GUARDED_BY(m_mutex) = 0;
};

// --- the same by handle, for those outside. A null argument is logged and answered with -1, 0 or false.

// A store, or nullptr. Release it with ota_destroy.
void* ota_new(uint16_t files_number);
// Takes a null handle; nulls the handle.
void ota_destroy(void** pp_ota);
using ota_ptr = std::unique_ptr<OTA_t, destroyed_by<ota_destroy>>;
int ota_download_firmware(void* p_ota, const char* url, const uint32_t* crc32, const uint32_t* git_ver);
bool ota_get_firmware_info(void* p_ota, uint16_t index, OTA_FIRMWARE_INFO_t* info);
bool ota_del_firmware(void* p_ota, uint16_t index);
uint16_t ota_get_files_number(void* p_ota);
bool ota_get_firmware_page(void* p_ota, uint32_t git_id, uint32_t crc32, uint32_t page_size,
                           uint32_t page_number, uint8_t* bufer);
bool ota_set_firmware_page(void* p_ota, uint32_t git_id, uint32_t crc32, uint32_t page_size,
                           uint32_t page_number, const uint8_t* buffer);

} // namespace rtls
