// Pages that servers send down, kept for other nodes: what is kept of a request that may lie about its sizes,
// and what the store serves of it afterwards, against a model that knows every block.
#include "downlink/page_interception.h"
#include "firmware/image_download.h"
#include "firmware/ota.h"
#include "fuzzing.h"
#include "services.h"
#include "wire/messaging.h"

#include <map>

namespace rtls {

using fuzzing::require;

namespace {

constexpr uint16_t slots = 2;
constexpr size_t block = 32;
constexpr size_t largest_page = 2048; // of which the last ones lie beyond the ceiling of an image
constexpr uint16_t very_large = 0xFE00;

namespace what {
constexpr unsigned image = 0x01;      // of two
constexpr unsigned any_number = 0x02; // of a page, up to where the store refuses it
constexpr unsigned odd_size = 0x04;   // a page's size that the store refuses
constexpr unsigned other_length = 0x08;
constexpr unsigned is_cut = 0x10;
constexpr unsigned other_command = 0x20;
constexpr unsigned more_behind = 0x40;
} // namespace what

// The blocks of an image that were kept, with the byte that they are full of.
using known_bytes = std::map<uint64_t, uint8_t>;

struct seen_page {
    unsigned image;
    uint16_t size;
    uint16_t number;

    uint64_t first() const { return uint64_t{size} * number / block; }
    uint64_t end() const { return first() + size / block; }
    uint32_t git() const { return 0x01020304 + image; }
    uint32_t crc() const { return 0xA1A2A3A4 - image; }
};

bool has_all_blocks(const known_bytes& image, const seen_page& page)
{
    for (uint64_t i = page.first(); i < page.end(); ++i)
        if (!image.contains(i))
            return false;
    return true;
}

std::vector<uint8_t> request_for(const seen_page& page, uint8_t fill)
{
    std::vector<uint8_t> request(ota_page::size);
    store_le16(request, msgHeader_t::msgType, MSG_GENERIC_REQ);
    store_be16(request, msgHeader_t::total_len, static_cast<uint16_t>(ota_page::total_len + page.size));
    store_be16(request, ota_page::command, GENERIC_REQ_OtaPage);
    store_be32(request, ota_page::git_id, page.git());
    store_be32(request, ota_page::crc32, page.crc());
    store_be16(request, ota_page::page_size, page.size);
    store_be16(request, ota_page::page_number, page.number);
    request.insert(request.end(), page.size, fill);
    return request;
}

class fuzzed_world {
public:
    fuzzed_world()
    {
        m_services.ota = &m_store;
        m_server.rtls_gateway = &m_services;
    }

    void step(fuzzing::input& input)
    {
        const unsigned options = input.u8();
        seen_page page{options & what::image, static_cast<uint16_t>(input.u8() % 8 * block), input.u8()};
        if ((options & what::odd_size) != 0)
            page.size = static_cast<uint16_t>(input.be16() % largest_page);
        if ((options & what::any_number) != 0) {
            page.number = input.be16();
            if (page.number < very_large) // which takes time and memory
                page.number %= 1024;
        }
        const uint8_t fill = input.u8();
        intercept(page, damaged(request_for(page, fill), options, input), fill);
        serve(page);
    }

private:
    static std::vector<uint8_t> damaged(std::vector<uint8_t> request, unsigned options, fuzzing::input& input)
    {
        if ((options & what::other_length) != 0)
            store_be16(request, msgHeader_t::total_len, input.be16());
        if ((options & what::other_command) != 0)
            store_be16(request, ota_page::command, input.be16());
        if ((options & what::is_cut) != 0)
            request.resize(input.be16() % request.size());
        else if ((options & what::more_behind) != 0)
            request.resize(request.size() + mac_size);
        request.shrink_to_fit();
        return request;
    }

    // Both the sender's word and the bytes that are there must tell of a whole page.
    static bool carries(const seen_page& page, const std::vector<uint8_t>& request)
    {
        if (request.size() < ota_page::size + page.size)
            return false;
        const size_t total_len = load_be16(request, msgHeader_t::total_len);
        return load_be16(request, ota_page::command) == GENERIC_REQ_OtaPage &&
               total_len > ota_page::total_len && total_len >= ota_page::total_len + page.size;
    }

    void intercept(const seen_page& page, const std::vector<uint8_t>& request, uint8_t fill)
    {
        const uint8_t nothing = 0;
        const bool is_kept =
            firmware_interception(&m_server, request.empty() ? &nothing : request.data(), request.size());
        const bool fits =
            page.size % block == 0 && uint64_t{page.size} * page.number + page.size <= image_size_ceiling;
        require(is_kept == (carries(page, request) && fits));
        known_bytes& image = m_images[page.image];
        if (is_kept && !has_all_blocks(image, page))
            for (uint64_t i = page.first(); i < page.end(); ++i)
                image[i] = fill;
        m_is_there[page.image] = m_is_there[page.image] || is_kept;
    }

    void serve(const seen_page& page)
    {
        std::vector<uint8_t> served(page.size + size_t{1});
        const bool is_served =
            m_store.get_firmware_page(page.git(), page.crc(), page.size, page.number, served.data());
        const known_bytes& image = m_images[page.image];
        if (page.size % block != 0 || !m_is_there[page.image])
            return require(!is_served);
        if (page.size == 0)
            return; // served as far as the image goes
        require(is_served == has_all_blocks(image, page));
        for (size_t i = 0; is_served && i < page.size; ++i)
            require(served[i] == image.at(page.first() + i / block));
    }

    OTA_t m_store{slots}; // as many as images, so that none displaces another
    services m_services;
    WIN_SERVER_t m_server;
    known_bytes m_images[slots];
    bool m_is_there[slots] = {};
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzing::input input{data, size};
    fuzzed_world world;
    for (int steps = 0; steps < 16 && !input.empty(); ++steps)
        world.step(input);
    return 0;
}

} // namespace rtls
