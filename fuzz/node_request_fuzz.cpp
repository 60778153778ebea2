// Frames for nodes as they are built: every byte where its reader looks for it, in a buffer that is not a byte
// longer than was said; and what operators order is what the forwarder of requests takes.
#include "fuzzing.h"
#include "wire/node_commands.h"
#include "wire/node_request.h"
#include "wire/ota_pages.h"

namespace rtls {

using fuzzing::bytes_t;
using fuzzing::require;

namespace {

void append(bytes_t& to, bytes_view bytes)
{
    to.insert(to.end(), bytes.begin(), bytes.end());
}

bool is_same(bytes_view a, bytes_view b)
{
    return std::ranges::equal(a, b);
}

void check_frame(const node_route& route, bytes_view message, bytes_view mac)
{
    bytes_t expected;
    if (route.forwarded_ip) {
        const auto size = static_cast<uint16_t>(message.size());
        expected = {0x00, static_cast<uint8_t>(route.direct_mask ? 0x28 : 0x08), 0,
                    static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)};
    }
    append(expected, message);
    if (route.forwarded_ip)
        append(expected, mac);
    append(expected, route.ip_addr);
    bytes_t out(expected.size());
    out.shrink_to_fit();
    require(node_request_frame(out, route, message, mac) == out.size() && out == expected);
    require(out.size() <= message.size() + node_request_overhead);
}

// A generic request: the length counts what stands between the header and the MAC.
void check_request(bytes_view request, unsigned command, const mac_array& mac)
{
    require(load_le16(request, msgHeader_t::msgType) == MSG_GENERIC_REQ && request[msgHeader_t::seqNo] == 0);
    require(load_be16(request, msgHeader_t::total_len) + msgHeader_t::size + mac_size == request.size());
    require(load_be16(request, msgHeader_t::size) == command);
    require(is_same(request.last(mac_size), mac));
}

void check_orders(fuzzing::input& input, const mac_array& mac)
{
    const auto reboot = make_reboot_request(mac);
    check_request(reboot, GENERIC_REQ_Reboot, mac);
    require(is_same(bytes_view{reboot}.subspan(7, 4), bytes_t{0, 2, 0, 0}));
    check_request(make_apply_request(mac), GENERIC_REQ_OtaApply, mac);

    const offered_image image{input.be32(), input.be32(), size_t{input.be32()} << 8 | input.u8()};
    const std::optional<uint16_t> source = (input.u8() & 1) != 0 ? std::optional{input.be16()} : std::nullopt;
    const auto set = make_set_request(image, source, mac);
    check_request(set, 0x000E, mac);
    require(set[7] == 0x20 && set[8] == set.size() - 9 - mac_size);
    require(load_be32(set, 9) == image.git_ver && load_be32(set, 13) == image.crc32);
    require(load_be32(set, 17) == static_cast<uint32_t>(image.size));
    require(set.size() == (source ? 23U : 21U) + mac_size && (!source || load_be16(set, 21) == *source));
}

// The answer to a request for a page, as far as it is not the page.
void check_page_answer(const bytes_t& message, const mac_array& mac)
{
    const auto request = read_ota_page_request(message);
    require(request.has_value() == (message.size() >= 19));
    if (!request)
        return;
    require(request->git_id == load_be32(message, 7) && request->crc32 == load_be32(message, 11));
    require(request->page_size == load_be16(message, 15) && request->page_number == load_be16(message, 17));
    bytes_t answer(size_t{19} + request->page_size + mac_size, 0xAA);
    answer.shrink_to_fit();
    require(answer.size() == ota_response_size(request->page_size));
    write_ota_response_frame(message, mac.data(), answer);
    require(load_be16(answer, 3) == static_cast<uint16_t>(request->page_size + 14) &&
            answer[2] == message[2]);
    require(answer[0] == 0x0E && answer[1] == 0x08);
    require(is_same(bytes_view{answer}.subspan(5, 14), bytes_view{message}.subspan(5, 14)));
    require(is_same(bytes_view{answer}.last(mac_size), mac));
    require(std::ranges::all_of(bytes_view{answer}.subspan(19, request->page_size),
                                [](uint8_t b) { return b == 0xAA; }));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzing::input input{data, size};
    const unsigned options = input.u8();
    node_route route{};
    route.forwarded_ip = (options & 1) != 0;
    route.direct_mask = (options & 2) != 0;
    std::ranges::copy(input.view(ip_addr_size), route.ip_addr.begin());
    mac_array mac{};
    std::ranges::copy(input.view(mac_size), mac.begin());
    check_orders(input, mac);
    bytes_t message = input.copy(size);
    check_frame(route, message, (options & 4) != 0 ? bytes_view{mac} : bytes_view{});
    if ((options & 0xF8) != 0 && message.size() > ota_page::page_size) // most pages are small
        message[ota_page::page_size] &= 3;
    check_page_answer(message, mac);
    return 0;
}

} // namespace rtls
