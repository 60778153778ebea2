#include "firmware/ota.h"

#include "base/bytes.h"
#include "base/common.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "firmware/crc32.h"
#include "firmware/image_download.h"
#include "firmware/ota_tags.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <utility>

namespace rtls {

// What an image is kept account of by: every page is a whole number of blocks.
static constexpr size_t block_bytes = 32;
static constexpr size_t growth_blocks = ota_growth_bytes / block_bytes;
static constexpr size_t blocks_ceiling = image_size_ceiling / block_bytes;

static constexpr char download_reporter[] = "ota_download_firmware"; // as log filters know it

struct OTA_FIRMWARE_t {
    OTA_FIRMWARE_INFO_t info{};
    std::unique_ptr<bool[]> validity_mask; // one flag a block; null: downloaded, so valid throughout
    image_memory memory;
    size_t page_count = 0;  // blocks that memory and validity_mask hold, of an image under assembly
    bool is_ordered = true; // by the servers, or assembled from their pages
};

namespace {

// Blocks of one page, in 64 bits: size and number come from the wire.
struct page_blocks {
    page_blocks(uint32_t page_size, uint32_t page_number)
        : start{uint64_t{page_size} * page_number}, first{start / block_bytes}, end{first +
                                                                                    page_size / block_bytes}
    {
    }
    uint64_t start; // of the page, in bytes
    uint64_t first;
    uint64_t end; // past the last
};

} // namespace

static bool is_page_size(uint32_t page_size)
{
    return page_size % block_bytes == 0;
}

// --- images

// Gives the image room for at least `required_page_count` blocks, or leaves it as it is.
static bool resize_firmware(OTA_FIRMWARE_t& firmware, uint64_t required_page_count)
{
    const uint64_t wanted = std::max<uint64_t>(firmware.page_count + growth_blocks, required_page_count);
    const size_t page_count = std::min<uint64_t>(wanted, blocks_ceiling);
    std::unique_ptr<bool[]> mask;
    if (required_page_count <= blocks_ceiling)
        mask.reset(new (std::nothrow) bool[page_count]{});
    void* memory = mask ? std::realloc(firmware.memory.get(), page_count * block_bytes) : nullptr;
    if (!memory) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return false;
    }
    static_cast<void>(firmware.memory.release()); // realloc has disposed of it
    firmware.memory.reset(static_cast<uint8_t*>(memory));
    std::copy_n(firmware.validity_mask.get(), firmware.page_count, mask.get());
    firmware.validity_mask = std::move(mask);
    firmware.page_count = page_count;
    firmware.info.size = page_count * block_bytes;
    return true;
}

// An image to be assembled, with nothing in it yet; not in the store yet, either.
static std::unique_ptr<OTA_FIRMWARE_t> create_firmware_for_page(uint32_t git_id, uint32_t crc32)
{
    std::unique_ptr<OTA_FIRMWARE_t> firmware{new (std::nothrow) OTA_FIRMWARE_t{}};
    if (firmware) {
        firmware->memory = allocate_image(growth_blocks * block_bytes);
        firmware->validity_mask.reset(new (std::nothrow) bool[growth_blocks]{});
    }
    if (!firmware || !firmware->memory || !firmware->validity_mask) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return nullptr;
    }
    firmware->info.git_ver = git_id;
    firmware->info.crc32 = crc32;
    firmware->info.size = growth_blocks * block_bytes;
    firmware->page_count = growth_blocks;
    return firmware;
}

static std::span<bool> mask_of(OTA_FIRMWARE_t& firmware, const page_blocks& page)
{
    return {firmware.validity_mask.get() + page.first, firmware.validity_mask.get() + page.end};
}

static bool is_complete(OTA_FIRMWARE_t& firmware, const page_blocks& page)
{
    if (!firmware.validity_mask)
        return true;
    if (page.end > firmware.page_count)
        return false;
    const auto mask = mask_of(firmware, page);
    return std::all_of(mask.begin(), mask.end(), [](bool valid) { return valid; });
}

static bool refuse(std::string* reason, const char* why)
{
    note_reason(reason, why);
    return false;
}

// Fills in what the bytes say of themselves; false, after a report, when they are not what is expected.
static bool describe_image(OTA_FIRMWARE_t& firmware, const uint32_t* crc32, const uint32_t* git_ver,
                           std::string* reason)
{
    const bytes_view image{firmware.memory.get(), firmware.info.size};
    firmware.info.crc32 = crc32_byte(image.data(), static_cast<uint32_t>(image.size()));
    if (crc32 && *crc32 != firmware.info.crc32) {
        logger_error(g_logger, "%s incorrect crc32!", download_reporter);
        return refuse(reason, "incorrect crc32");
    }
    if (!read_board_tag(image, firmware.info))
        return refuse(reason, "tag \"@BoardVer\" not found");
    if (!read_firmware_tag(image, firmware.info))
        return refuse(reason, "tag \"@Firmware\" not found");
    if (git_ver && *git_ver != firmware.info.git_ver) {
        logger_error(g_logger, "%s incorrect git version!", download_reporter);
        return refuse(reason, "incorrect git version");
    }
    return true;
}

// Keeps the first content of every page: one that is there already is not copied again.
static bool store_page(OTA_FIRMWARE_t& firmware, const page_blocks& page, bytes_view bytes)
{
    if (!firmware.validity_mask)
        return false; // downloaded: whole, and not to be changed
    if (page.end > firmware.page_count && !resize_firmware(firmware, page.end))
        return false;
    if (is_complete(firmware, page))
        return true;
    std::memcpy(firmware.memory.get() + page.start, bytes.data(), bytes.size());
    std::ranges::fill(mask_of(firmware, page), true);
    return true;
}

// --- the store

OTA_t::OTA_t(uint16_t files_number)
    : m_files_number(files_number), m_firmware_arr(std::make_unique<firmware_ptr[]>(files_number))
{
}

OTA_t::~OTA_t() = default;

// The first slot that holds the image with this key; the number of slots when none does.
size_t OTA_t::find_slot(uint32_t git_ver, uint32_t crc32) const
{
    size_t slot = 0;
    for (; slot < m_files_number; ++slot) {
        const OTA_FIRMWARE_t* firmware = m_firmware_arr[slot].get();
        if (firmware && firmware->info.git_ver == git_ver && firmware->info.crc32 == crc32)
            break;
    }
    return slot;
}

OTA_FIRMWARE_t* OTA_t::find_firmware(uint32_t git_ver, uint32_t crc32) const
{
    const size_t slot = find_slot(git_ver, crc32);
    return slot < m_files_number ? m_firmware_arr[slot].get() : nullptr;
}

bool OTA_t::may_take(size_t slot, const OTA_FIRMWARE_t& firmware) const
{
    const OTA_FIRMWARE_t* present = m_firmware_arr[slot].get();
    return !m_keeps_ordered || firmware.is_ordered || !present || !present->is_ordered;
}

// The slot for this image: its key's own, otherwise the next in turn. The number of slots when all that it
// may have are taken for good.
size_t OTA_t::choose_slot(const OTA_FIRMWARE_t& firmware)
{
    const size_t own = find_slot(firmware.info.git_ver, firmware.info.crc32);
    if (own < m_files_number)
        return may_take(own, firmware) ? own : m_files_number;
    for (size_t tried = 0; tried < m_files_number; ++tried) {
        const size_t slot = m_index;
        m_index = static_cast<uint16_t>((m_index + 1) % m_files_number);
        if (may_take(slot, firmware))
            return slot;
    }
    return m_files_number;
}

// Stores an image; its slot. -1, and the image is destroyed, when there is no slot for it.
int OTA_t::add_firmware(firmware_ptr firmware)
{
    const size_t slot = choose_slot(*firmware);
    if (slot == m_files_number) {
        if (m_keeps_ordered)
            m_refused.fetch_add(1, std::memory_order_relaxed);
        return -1;
    }
    m_firmware_arr[slot] = std::move(firmware);
    return static_cast<int>(slot);
}

int OTA_t::store_downloaded(firmware_ptr firmware, std::string* reason)
{
    static constexpr char kept[] = "the images that the servers ordered are kept";
    int slot = -1;
    bool is_to_be_said = false;
    {
        const mutex_guard lock{m_mutex};
        slot = add_firmware(std::move(firmware));
        is_to_be_said = slot == -1 && m_keeps_ordered && m_refusals.begins(zclock_mono());
    }
    if (slot == -1)
        note_reason(reason, m_keeps_ordered ? kept : "there is no slot (firmware_files)");
    if (is_to_be_said) // whoever asks for one may ask again and again
        logger_error(g_logger, "%s: %s", download_reporter, kept);
    return slot;
}

int OTA_t::download_firmware(const char* url, const uint32_t* crc32, const uint32_t* git_ver,
                             std::string* reason)
{
    firmware_ptr firmware{new (std::nothrow) OTA_FIRMWARE_t{}};
    if (!firmware) {
        image_download_not_begun();
        logger_error(g_logger, str_out_of_memory, download_reporter);
        note_reason(reason, "out of memory");
        return -1;
    }
    auto image = image_download(url, {.caller = download_reporter,
                                      .bad_length_aborts = true,
                                      .reports_missing_length = true,
                                      .reason = reason});
    if (!image)
        return -1;
    firmware->memory = std::move(image->memory);
    firmware->info.size = image->size;
    firmware->is_ordered = crc32 || git_ver;
    return describe_image(*firmware, crc32, git_ver, reason) ? store_downloaded(std::move(firmware), reason)
                                                             : -1;
}

std::optional<OTA_FIRMWARE_INFO_t> OTA_t::firmware_info(uint16_t index) const
{
    const mutex_guard lock{m_mutex};
    if (index >= m_files_number || !m_firmware_arr[index])
        return std::nullopt;
    return m_firmware_arr[index]->info;
}

bool OTA_t::del_firmware(uint16_t index)
{
    const mutex_guard lock{m_mutex};
    if (index >= m_files_number || !m_firmware_arr[index])
        return false;
    m_firmware_arr[index].reset();
    return true;
}

bool OTA_t::get_firmware_page(uint32_t git_id, uint32_t crc32, uint32_t page_size, uint32_t page_number,
                              uint8_t* bufer) const
{
    if (!is_page_size(page_size))
        return false;
    const page_blocks page{page_size, page_number};

    const mutex_guard lock{m_mutex};
    OTA_FIRMWARE_t* firmware = find_firmware(git_id, crc32);
    if (!firmware || page.start >= firmware->info.size || !is_complete(*firmware, page))
        return false;
    const size_t available = std::min<size_t>(page_size, firmware->info.size - page.start);
    std::memcpy(bufer, firmware->memory.get() + page.start, available);
    std::memset(bufer + available, 0xFF, page_size - available);
    return true;
}

bool OTA_t::set_firmware_page(uint32_t git_id, uint32_t crc32, uint32_t page_size, uint32_t page_number,
                              const uint8_t* buffer)
{
    if (!is_page_size(page_size))
        return false;
    const page_blocks page{page_size, page_number};
    const bytes_view bytes{buffer, page_size};

    const mutex_guard lock{m_mutex};
    if (OTA_FIRMWARE_t* firmware = find_firmware(git_id, crc32))
        return store_page(*firmware, page, bytes);
    // A new image displaces another only once its first page is in: a refused page costs nothing.
    firmware_ptr firmware = create_firmware_for_page(git_id, crc32);
    return firmware && store_page(*firmware, page, bytes) && add_firmware(std::move(firmware)) >= 0;
}

// --- by handle

static OTA_t& store_of(void* p_ota)
{
    return *static_cast<OTA_t*>(p_ota);
}

void* ota_new(uint16_t files_number)
{
    try {
        return new OTA_t{files_number};
    } catch (const std::bad_alloc&) {
        logger_error(g_logger, str_out_of_memory, __func__);
        return nullptr;
    }
}

void ota_destroy(void** pp_ota)
{
    if (any_null(__func__, pp_ota))
        return;
    delete static_cast<OTA_t*>(*pp_ota);
    *pp_ota = nullptr;
}

int ota_download_firmware(void* p_ota, const char* url, const uint32_t* crc32, const uint32_t* git_ver)
{
    return any_null(__func__, p_ota, url) ? -1 : store_of(p_ota).download_firmware(url, crc32, git_ver);
}

bool ota_get_firmware_info(void* p_ota, uint16_t index, OTA_FIRMWARE_INFO_t* info)
{
    if (any_null(__func__, p_ota, info))
        return false;
    const auto found = store_of(p_ota).firmware_info(index);
    if (found)
        *info = *found;
    return found.has_value();
}

bool ota_del_firmware(void* p_ota, uint16_t index)
{
    return !any_null(__func__, p_ota) && store_of(p_ota).del_firmware(index);
}

uint16_t ota_get_files_number(void* p_ota)
{
    return any_null(__func__, p_ota) ? uint16_t{0} : store_of(p_ota).files_number();
}

bool ota_get_firmware_page(void* p_ota, uint32_t git_id, uint32_t crc32, uint32_t page_size,
                           uint32_t page_number, uint8_t* bufer)
{
    return !any_null(__func__, p_ota, bufer) &&
           store_of(p_ota).get_firmware_page(git_id, crc32, page_size, page_number, bufer);
}

bool ota_set_firmware_page(void* p_ota, uint32_t git_id, uint32_t crc32, uint32_t page_size,
                           uint32_t page_number, const uint8_t* buffer)
{
    return !any_null(__func__, p_ota, buffer) &&
           store_of(p_ota).set_firmware_page(git_id, crc32, page_size, page_number, buffer);
}

} // namespace rtls
