// The texts of node reports: exactly the members that the servers take apart, in an object that is JSON by the
// letter, in a buffer that is not a byte longer than was said.
#include "fuzzing.h"
#include "strict_json.h"
#include "wire/report_texts.h"

#include <array>
#include <cstdarg>
#include <cstdio>

namespace rtls {

using fuzzing::require;

namespace {

__attribute__((format(printf, 1, 2))) std::string printed(const char* format, ...)
{
    char text[160];
    va_list args;
    va_start(args, format);
    (void)vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

std::string mac_text(const uint8_t* mac)
{
    return printed("%02x%02x%02x%02x%02x%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

void check_object(const std::string& members)
{
    require(fuzzing::is_strict_json("{" + members + "}"));
    require(!fuzzing::is_strict_json("{" + members) && !fuzzing::is_strict_json("{" + members + ",}"));
}

void route_request_text(bytes_view message)
{
    if (message.size() < route_request_extent(0))
        return;
    const size_t requesters = (message.size() - route_request_extent(0)) / route_request::entry_size;
    std::vector<char> out(route_request_text_size(requesters));
    out.shrink_to_fit();
    write_route_request_text(message, requesters, out);
    const std::string text = out.data();
    require(text.size() + 1 == out.size());
    check_object(text);

    std::string expected =
        "\"route_request\":{\"reporter\":{\"mac\":\"" + mac_text(&message[7]) + "\"},\"requester\":[";
    for (size_t i = 0; i < requesters; ++i) {
        const uint8_t* entry = &message[15 + 8 * i];
        expected += (i == 0 ? "{\"mac\":\"" : ",{\"mac\":\"") + mac_text(entry) +
                    printed("\",\"lqi\":%3u}", unsigned{entry[7]});
    }
    require(text == expected + "]}");
}

std::string expected_ul_tdoa(bytes_view m, unsigned total_len)
{
    std::string text = printed("\"ul_tdoa_data\":{\"pe_seq_no\":%u", unsigned{load_be16(m, 13)}) +
                       printed(",\"range_mm\":%d", static_cast<int>(load_be32(m, 27))) +
                       ",\"tag\":{\"mac\":\"" + mac_text(&m[7]) + printed("\",\"lqi\":%u", unsigned{m[31]}) +
                       "},\"responder\":{\"mac\":\"" + mac_text(&m[15]) +
                       printed("\",\"lqi\":%u", unsigned{m[32]}) + "},\"reporter\":{\"mac\":\"" +
                       mac_text(&m[21]) + "\"}";
    if (total_len >= 38)
        text += printed(",\"board_version\":%u", unsigned{m[33]}) +
                printed(",\"board_revision\":%u", unsigned{m[34]}) +
                printed(",\"flags\":\"%X\"", unsigned{load_be16(m, 35)}) +
                printed(",\"firmware_id\":\"%X\"", load_be32(m, 37)) +
                printed(",\"batt_voltage\":%u", unsigned{load_be16(m, 41)});
    if (total_len >= 39)
        text += printed(",\"percent_of_charge\":%u", unsigned{m[43]});
    return text + "}";
}

void ul_tdoa_text(bytes_view message)
{
    const auto report = read_ul_tdoa(message);
    if (message.size() < msgHeader_t::size)
        return require(!report);
    const unsigned total_len = load_le16(message, msgHeader_t::total_len);
    const size_t least = total_len >= 39 ? 44 : total_len >= 38 ? 43 : 33;
    require(report.has_value() == (message.size() >= least));
    if (!report)
        return;
    std::array<char, ul_tdoa_text_limit> out{};
    const size_t size = write_ul_tdoa_text(*report, out);
    require(size <= 301 && out[size] == '\0');
    require(out.data() == expected_ul_tdoa(message, total_len));
    check_object(out.data());
}

void management_head(int64_t seconds, uint32_t milliseconds)
{
    std::array<char, management_head_limit> out{};
    const size_t size = write_management_head({seconds, milliseconds}, out);
    const std::string head{out.data(), size};
    require(head == printed("@win_management {\"ts\":%10lld", static_cast<long long>(seconds)) +
                        printed(",\"ms\":%3u,", milliseconds));
    static constexpr char name[] = "@win_management ";
    require(fuzzing::is_strict_json(head.substr(sizeof name - 1) + "\"text\":{}" + management_tail));
}

void report_time(uint32_t seconds, uint16_t milliseconds)
{
    const timestamp_bytes frame = timestamp_frame(seconds, milliseconds);
    require(load_be32(frame, 0) == seconds && load_be16(frame, 4) == milliseconds);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzing::input input{data, size};
    const uint64_t seconds = uint64_t{input.be32()} << 32 | input.be32();
    const uint32_t milliseconds = input.be32();
    management_head(static_cast<int64_t>(seconds), milliseconds);
    report_time(static_cast<uint32_t>(seconds), static_cast<uint16_t>(milliseconds));
    const std::vector<uint8_t> message = input.copy(size);
    route_request_text(message);
    ul_tdoa_text(message);
    return 0;
}

} // namespace rtls
