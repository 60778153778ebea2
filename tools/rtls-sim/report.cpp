#include "rtls-sim/report.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

namespace sim {

static constexpr size_t header_size = 5;
static constexpr size_t heartbeat_size = 47; // without the address, which stays at the gateway
static constexpr size_t root_size = 13;

static std::optional<kind> kind_of(view data)
{
    reader in{data};
    switch (static_cast<msg>(in.be16())) {
    case msg::root_announce:
        return kind::root_announce;
    case msg::heartbeat:
        return kind::heartbeat;
    case msg::node_announce:
        return kind::node_announce;
    case msg::sensor_report:
        return kind::sensor;
    case msg::generic_up:
        break;
    default:
        return std::nullopt;
    }
    in.take(header_size - 2);
    switch (static_cast<sub>(in.be16())) {
    case sub::range_report:
        return kind::range;
    case sub::ota_page:
        return kind::ota_page;
    default:
        return kind::generic;
    }
}

static std::optional<ota_page_id> page_of(view payload)
{
    reader in{payload};
    in.be16();
    ota_page_id id;
    id.git_id = in.be32();
    id.crc = in.be32();
    id.page_size = in.be16();
    id.page = in.be16();
    return in.failed() ? std::nullopt : std::optional{id};
}

static void read_with_header(view data, upstream_report& report)
{
    reader in{data};
    in.take(3);
    const uint16_t size = in.be16();
    const view payload = in.take(size);
    report.from = in.mac();
    report.valid = !in.failed() && in.left() == 0;
    if (*report.kind == kind::sensor)
        report.stamp = find_stamp(payload);
    if (*report.kind == kind::range)
        report.stamp = find_range_stamp(payload);
    if (*report.kind == kind::ota_page)
        report.page = page_of(payload);
}

upstream_report read_handler_message(view time, view data)
{
    upstream_report report;
    report.content.assign(data.begin(), data.end());
    reader clock{time};
    report.time.seconds = clock.be32();
    report.time.milliseconds = clock.be16();
    if (clock.failed() || clock.left() != 0 || report.time.milliseconds > 999 || data.size() < 3)
        return report;
    report.kind = kind_of(data);
    report.seq = data[2];
    if (!report.kind)
        return report;
    reader in{data};
    switch (*report.kind) {
    case kind::root_announce:
        in.take(3);
        report.from = in.mac();
        report.valid = data.size() == root_size;
        break;
    case kind::heartbeat:
    case kind::node_announce:
        in.take(7);
        report.from = in.mac();
        report.valid = data.size() == heartbeat_size;
        break;
    default:
        read_with_header(data, report);
    }
    return report;
}

// A number right-aligned in a field of its own, blank-padded.
template <typename Number>
static bool take_padded(std::string_view& text, size_t width, Number& value)
{
    if (text.size() < width)
        return false;
    std::string_view field = text.substr(0, width);
    text.remove_prefix(width);
    field.remove_prefix(std::min(field.find_first_not_of(' '), field.size()));
    const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), value);
    return error == std::errc{} && end == field.data() + field.size();
}

static bool take_text(std::string_view& text, std::string_view expected)
{
    if (!text.starts_with(expected))
        return false;
    text.remove_prefix(expected.size());
    return true;
}

// The reporter's six bytes, as in "reporter":{"mac":"0a1b2c3d4e5f"}.
static bool read_reporter(std::string_view text, mac_bytes& mac)
{
    static constexpr std::string_view mark = R"("reporter":{"mac":")";
    const size_t at = text.find(mark);
    if (at == std::string_view::npos)
        return false;
    const auto six = from_hex(text.substr(at + mark.size(), 12));
    if (!six || six->size() != 6)
        return false;
    std::ranges::copy(*six, mac.begin() + 2);
    return true;
}

upstream_report read_management_line(std::string_view line)
{
    upstream_report report;
    report.content = line;
    std::string_view rest = line;
    if (!take_text(rest, R"(@win_management {"ts":)") || !take_padded(rest, 10, report.time.seconds) ||
        !take_text(rest, R"(,"ms":)") || !take_padded(rest, 3, report.time.milliseconds) ||
        !take_text(rest, ",") || !rest.ends_with('}'))
        return report;
    rest.remove_suffix(1);
    report.content = rest;
    if (rest.starts_with(R"("route_request":{)"))
        report.kind = kind::route;
    else if (rest.starts_with(R"("ul_tdoa_data":{)"))
        report.kind = kind::ul_tdoa;
    report.valid = report.kind && rest.ends_with('}') && read_reporter(rest, report.from);
    return report;
}

static std::string describe_heartbeat(view data)
{
    reader in{data};
    in.take(3);
    const uint8_t reporting = in.u8();
    const uint8_t ranging = in.u8();
    const uint8_t role = in.u8();
    const uint8_t sublocation = in.u8();
    in.mac();
    const mac_bytes parent = in.mac();
    const uint32_t version = in.be32();
    const auto x = static_cast<int32_t>(in.be32());
    const auto y = static_cast<int32_t>(in.be32());
    const uint32_t z = in.be32();
    const mac_bytes bridge = in.mac();
    return fmt::format("{} state {:02X} rf {} rngf {} sl {:02X} parent {} sw {:08X} xyz {},{},{} via {}",
                       role_name(role & 0x0F), role & 0xF0, reporting, ranging, sublocation,
                       short_mac(parent), version, x, y, static_cast<int32_t>(z), short_mac(bridge));
}

static std::string describe_ranges(view payload)
{
    if (find_range_stamp(payload))
        payload = payload.first(payload.size() - range_stamp_size);
    reader in{payload};
    in.be16();
    std::string text;
    while (in.left() >= 8) {
        const uint16_t peer = in.be16();
        const uint32_t distance = in.be32();
        text += fmt::format("{}{:04X} {} mm q {}", text.empty() ? "" : ", ", peer, distance, in.be16());
    }
    return text;
}

static std::string shortened(view payload)
{
    const view shown = payload.first(std::min<size_t>(payload.size(), 24));
    return fmt::format("{} bytes {}{}", payload.size(), hex(shown),
                       shown.size() < payload.size() ? ".." : "");
}

static std::string describe_payload(const upstream_report& report, view data)
{
    reader in{data};
    in.take(3);
    const view payload = in.take(in.be16());
    switch (*report.kind) {
    case kind::range:
        return describe_ranges(payload);
    case kind::sensor:
        if (report.stamp)
            return fmt::format("{} no {}", shortened(payload.first(payload.size() - stamp_size)),
                               report.stamp->counter);
        break;
    case kind::ota_page:
        if (report.page)
            return fmt::format("git {:08X} crc {:08X} page {} of {} bytes", report.page->git_id,
                               report.page->crc, report.page->page, report.page->page_size);
        break;
    default:
        break;
    }
    const view shown = payload.first(std::min<size_t>(payload.size(), 24));
    return fmt::format("{} bytes {}{}", payload.size(), hex(shown),
                       shown.size() < payload.size() ? ".." : "");
}

std::string describe(const upstream_report& report)
{
    const view data{reinterpret_cast<const uint8_t*>(report.content.data()), report.content.size()};
    if (!report.valid || !report.kind)
        return fmt::format("unreadable: {}", hex(data));
    const std::string head = fmt::format("{:<17} {}", kind_name(*report.kind), short_mac(report.from));
    switch (*report.kind) {
    case kind::route:
    case kind::ul_tdoa:
        return fmt::format("{}         {}", head, report.content);
    case kind::root_announce:
        return fmt::format("{} seq {:3} prefix {}", head, report.seq, hex(data.last(2)));
    case kind::heartbeat:
    case kind::node_announce:
        return fmt::format("{} seq {:3} {}", head, report.seq, describe_heartbeat(data));
    default:
        return fmt::format("{} seq {:3} {}", head, report.seq, describe_payload(report, data));
    }
}

} // namespace sim
