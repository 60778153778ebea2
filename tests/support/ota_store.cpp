#include "support/ota_store.h"

#include "base/common.h"
#include "support/temp_file.h"

#include <gmock/gmock.h>

namespace rtls {

using testing::Each;

store_ptr store_of(uint16_t files_number)
{
    return store_ptr{ota_new(files_number)};
}

std::string board_tag()
{
    return {"@BoardVer\0\x01\x02", 12};
}

std::string firmware_tag(uint32_t git_ver)
{
    std::string tag{"@Firmware\0....\x00\x80\x00\x40", 18};
    for (size_t i = 0; i < 4; ++i)
        tag[10 + i] = static_cast<char>(git_ver >> (24 - 8 * i));
    return tag;
}

std::string image_of(uint32_t git_ver, size_t size)
{
    std::string image = board_tag() + "between" + firmware_tag(git_ver);
    while (image.size() < size)
        image.push_back(static_cast<char>(image.size()));
    return image;
}

uint32_t crc_of(const std::string& image)
{
    return crc32_byte(reinterpret_cast<const uint8_t*>(image.data()), static_cast<uint32_t>(image.size()));
}

int download(const store_ptr& store, const std::string& image, std::optional<uint32_t> crc32,
             std::optional<uint32_t> git_ver)
{
    const temp_file file{"image.bin", image};
    return ota_download_firmware(store.get(), file.url().c_str(), crc32 ? &*crc32 : nullptr,
                                 git_ver ? &*git_ver : nullptr);
}

bool is_same(const OTA_FIRMWARE_INFO_t& a, const OTA_FIRMWARE_INFO_t& b)
{
    return a.size == b.size && a.crc32 == b.crc32 && a.board_version == b.board_version &&
           a.board_revision == b.board_revision && a.git_ver == b.git_ver && a.page_size == b.page_size &&
           a.maximum_pages == b.maximum_pages;
}

std::vector<uint32_t> slots(const store_ptr& store)
{
    std::vector<uint32_t> result;
    for (uint16_t i = 0; i < ota_get_files_number(store.get()); ++i) {
        OTA_FIRMWARE_INFO_t info{};
        result.push_back(ota_get_firmware_info(store.get(), i, &info) ? info.git_ver : 0);
    }
    return result;
}

size_t size_of_slot(const store_ptr& store, uint16_t index)
{
    OTA_FIRMWARE_INFO_t info{};
    return ota_get_firmware_info(store.get(), index, &info) ? info.size : 0;
}

std::optional<bytes_t> get_page(const store_ptr& store, uint32_t git_id, uint32_t crc32, uint32_t page_size,
                                uint32_t page_number)
{
    constexpr size_t guard = 8;
    bytes_t page(page_size + guard, 0xC3);
    const bool got = ota_get_firmware_page(store.get(), git_id, crc32, page_size, page_number, page.data());
    EXPECT_THAT(bytes_t(page.end() - guard, page.end()), Each(0xC3));
    if (!got) {
        EXPECT_THAT(page, Each(0xC3)) << "a refusal leaves the buffer alone";
        return std::nullopt;
    }
    page.resize(page_size);
    return page;
}

bool set_page(const store_ptr& store, uint32_t git_id, uint32_t crc32, uint32_t page_number,
              const bytes_t& page)
{
    return ota_set_firmware_page(store.get(), git_id, crc32, static_cast<uint32_t>(page.size()), page_number,
                                 page.data());
}

} // namespace rtls
