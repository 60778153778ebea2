// Fuzzes the store with sequences of page operations, against a model that remembers every block.
#include "base/bytes.h"
#include "base/czmq_ptr.h"
#include "firmware/image_download.h"
#include "firmware/ota.h"

#include <cstdlib>
#include <map>
#include <memory>
#include <vector>

namespace rtls {

using store_ptr = std::unique_ptr<void, destroyed_by<ota_destroy>>;

namespace {

constexpr uint16_t slots = 2;
constexpr size_t block = 32;
constexpr uint32_t git = 1; // the image that the model follows
constexpr uint32_t other_git = 2;
constexpr uint32_t crc = 7;
constexpr uint32_t largest_page = 65535; // what the wire can say

// One operation of the input, big-endian.
namespace operation {
constexpr size_t what = 0; // the bits below
constexpr size_t page_size = 1;
constexpr size_t page_number = 3;
constexpr size_t fill = 7; // the page's bytes
constexpr size_t size = 8;
} // namespace operation

constexpr unsigned setting = 1;     // rather than getting
constexpr unsigned other_image = 2; // a page set of the other image
constexpr unsigned deletion = 4;

// The blocks that were set, with their bytes.
using page_model = std::map<uint64_t, uint8_t>;

void require(bool condition)
{
    if (!condition)
        std::abort();
}

bool has_all_blocks(const page_model& model, uint64_t first, uint64_t end)
{
    for (uint64_t i = first; i < end; ++i)
        if (!model.contains(i))
            return false;
    return true;
}

bool is_kept(void* store)
{
    OTA_FIRMWARE_INFO_t info{};
    for (uint16_t i = 0; i < slots; ++i)
        if (ota_get_firmware_info(store, i, &info) && info.git_ver == git)
            return true;
    return false;
}

void set_page(void* store, page_model& model, uint32_t page_size, uint32_t page_number, uint8_t fill)
{
    const std::vector<uint8_t> page(page_size + 1, fill); // never without an address
    const bool stored = ota_set_firmware_page(store, git, crc, page_size, page_number, page.data());
    const uint64_t start = uint64_t{page_size} * page_number;
    const bool fits = page_size % block == 0 && start + page_size <= image_size_ceiling;
    require(stored == fits);
    const uint64_t first = start / block;
    const uint64_t end = first + page_size / block;
    if (stored && !has_all_blocks(model, first, end))
        for (uint64_t i = first; i < end; ++i)
            model[i] = fill;
}

void get_page(void* store, const page_model& model, uint32_t page_size, uint32_t page_number)
{
    std::vector<uint8_t> page(page_size + 1);
    const bool served = ota_get_firmware_page(store, git, crc, page_size, page_number, page.data());
    if (page_size == 0)
        return; // served as soon as there is an image
    const uint64_t first = uint64_t{page_size} * page_number / block;
    const uint64_t end = first + page_size / block;
    require(served == (page_size % block == 0 && has_all_blocks(model, first, end)));
    if (served)
        for (size_t i = 0; i < page_size; ++i)
            require(page[i] == model.at(first + i / block));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::vector<uint8_t> other_page(largest_page);
    const store_ptr store{ota_new(slots)};
    page_model model;
    bytes_view rest{data, size};
    for (; rest.size() >= operation::size; rest = rest.subspan(operation::size)) {
        const unsigned what = rest[operation::what];
        const uint32_t page_size = load_be16(rest, operation::page_size);
        const uint32_t page_number = load_be32(rest, operation::page_number);
        const uint8_t fill = rest[operation::fill];
        if ((what & other_image) != 0) {
            ota_set_firmware_page(store.get(), other_git, crc, page_size, page_number, other_page.data());
        } else if ((what & deletion) != 0) {
            ota_del_firmware(store.get(), page_size % slots);
        } else if ((what & setting) != 0) {
            set_page(store.get(), model, page_size, page_number, fill);
        } else {
            get_page(store.get(), model, page_size, page_number);
        }
        if (!is_kept(store.get()))
            model.clear(); // deleted, or displaced by the other image
    }
    return 0;
}

} // namespace rtls
