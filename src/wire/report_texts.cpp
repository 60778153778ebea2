#include "wire/report_texts.h"

#include <algorithm>
#include <cassert>
#include <charconv>
#include <cstring>
#include <string_view>

namespace rtls {

static constexpr std::string_view route_request_head = "\"route_request\":{\"reporter\":{\"mac\":\"";
static constexpr std::string_view route_requesters_head = "\"},\"requester\":[";
static constexpr std::string_view route_requester_mac = "{\"mac\":\"";
static constexpr std::string_view route_requester_lqi = "\",\"lqi\":";
static constexpr std::string_view route_request_tail = "]}";
static constexpr size_t lqi_width = 3;

namespace {

// Appends to a buffer whose size the caller has worked out.
class text_writer {
public:
    explicit text_writer(std::span<char> out) : m_out(out) {}

    text_writer& text(std::string_view part)
    {
        assert(m_size + part.size() <= m_out.size());
        std::memcpy(m_out.data() + m_size, part.data(), part.size());
        m_size += part.size();
        return *this;
    }

    template <typename Number>
    text_writer& number(Number value)
    {
        char* const begin = m_out.data() + m_size;
        [[maybe_unused]] const auto [end, error] = std::to_chars(begin, m_out.data() + m_out.size(), value);
        assert(error == std::errc{});
        m_size += static_cast<size_t>(end - begin);
        return *this;
    }

    // Behind blanks up to the width.
    template <typename Number>
    text_writer& number(Number value, size_t width)
    {
        char digits[24];
        const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
        const std::string_view shown{digits, static_cast<size_t>(end - digits)};
        for (size_t i = shown.size(); i < width; i++)
            text(" ");
        return text(shown);
    }

    // Upper case without leading zeros.
    text_writer& hex_number(uint32_t value)
    {
        char digits[8];
        size_t at = sizeof digits;
        do {
            digits[--at] = "0123456789ABCDEF"[value & 0x0F];
            value >>= 4;
        } while (value != 0);
        return text({digits + at, sizeof digits - at});
    }

    // Lower case, two digits a byte: how the servers write MACs.
    text_writer& mac(const uint8_t* six_bytes)
    {
        assert(m_size + 2 * six_byte_mac <= m_out.size());
        char* digits = m_out.data() + m_size;
        for (size_t i = 0; i < six_byte_mac; i++) {
            *digits++ = "0123456789abcdef"[six_bytes[i] >> 4];
            *digits++ = "0123456789abcdef"[six_bytes[i] & 0x0F];
        }
        m_size += 2 * six_byte_mac;
        return *this;
    }

    size_t size() const { return m_size; }

    // Adds the terminating zero; the length without it.
    size_t terminate()
    {
        constexpr char zero = '\0';
        text({&zero, 1});
        return m_size - 1;
    }

private:
    std::span<char> m_out;
    size_t m_size = 0;
};

} // namespace

timestamp_bytes timestamp_frame(uint32_t seconds, uint16_t milliseconds)
{
    timestamp_bytes frame{};
    store_be32(frame, report_timestamp::seconds, seconds);
    store_be16(frame, report_timestamp::milliseconds, milliseconds);
    return frame;
}

static size_t sender_at(bytes_view report)
{
    switch (report.size() < msgGeneric_t::size ? 0 : load_be16(report, msgGeneric_t::msgType)) {
    case MSG_ANNOUNCE_ROOT_IND:
        return gwMsgRootAnnounce_t::ieee_addr;
    case MSG_HEARTBEAT_IND:
    case MSG_NODE_ANNOUNCE_IND:
        return gwMsgHeartbeat_t::long_addr;
    default: // behind its payload
        return report.size() - std::min(report.size(), mac_size);
    }
}

bytes_view report_sender(bytes_view report)
{
    const bytes_view rest = report.subspan(std::min(report.size(), sender_at(report)));
    return rest.first(std::min(rest.size(), mac_size));
}

size_t write_management_head(tav_timestamp_t time, std::span<char, management_head_limit> out)
{
    text_writer writer{out};
    writer.text("@win_management {\"ts\":").number(time.seconds, 10);
    writer.text(",\"ms\":").number(time.milliseconds, 3).text(",");
    return writer.size();
}

size_t route_request_text_size(size_t requesters)
{
    constexpr size_t mac_digits = 2 * six_byte_mac;
    constexpr size_t entry =
        route_requester_mac.size() + mac_digits + route_requester_lqi.size() + lqi_width + 1;
    const size_t commas = requesters - (requesters != 0);
    return route_request_head.size() + mac_digits + route_requesters_head.size() + requesters * entry +
           commas + route_request_tail.size() + 1;
}

void write_route_request_text(bytes_view message, size_t requesters, std::span<char> out)
{
    assert(message.size() >= route_request_extent(requesters));
    text_writer writer{out};
    writer.text(route_request_head).mac(&message[route_request::reporter]).text(route_requesters_head);
    for (size_t i = 0; i < requesters; i++) {
        const uint8_t* entry = &message[route_request_extent(i)];
        writer.text(i == 0 ? "" : ",").text(route_requester_mac).mac(entry + route_request::mac);
        writer.text(route_requester_lqi).number(entry[route_request::lqi], lqi_width).text("}");
    }
    writer.text(route_request_tail).terminate();
}

size_t ul_tdoa_extent(uint16_t total_len)
{
    if (total_len >= ul_tdoa::charge_len)
        return ul_tdoa::percent_of_charge + 1;
    return total_len >= ul_tdoa::board_len ? ul_tdoa::percent_of_charge : ul_tdoa::board_version;
}

static ul_tdoa_board read_board(bytes_view message)
{
    return {
        .version = message[ul_tdoa::board_version],
        .revision = message[ul_tdoa::board_revision],
        .flags = load_be16(message, ul_tdoa::flags),
        .firmware_id = load_be32(message, ul_tdoa::firmware_id),
        .batt_voltage = load_be16(message, ul_tdoa::batt_voltage),
    };
}

std::optional<ul_tdoa_report> read_ul_tdoa(bytes_view message)
{
    if (message.size() < msgHeader_t::size)
        return std::nullopt;
    const uint16_t total_len = load_le16(message, msgHeader_t::total_len);
    if (message.size() < ul_tdoa_extent(total_len))
        return std::nullopt;
    ul_tdoa_report report{
        .tag_mac = &message[ul_tdoa::tag_mac],
        .responder_mac = &message[ul_tdoa::responder_mac],
        .reporter_mac = &message[ul_tdoa::reporter_mac],
        .pe_seq_no = load_be16(message, ul_tdoa::pe_seq_no),
        .range_mm = static_cast<int32_t>(load_be32(message, ul_tdoa::range_mm)),
        .tag_lqi = message[ul_tdoa::tag_lqi],
        .resp_anchor_lqi = message[ul_tdoa::resp_anchor_lqi],
        .board = std::nullopt,
        .percent_of_charge = std::nullopt,
    };
    if (total_len >= ul_tdoa::board_len)
        report.board = read_board(message);
    if (total_len >= ul_tdoa::charge_len)
        report.percent_of_charge = message[ul_tdoa::percent_of_charge];
    return report;
}

size_t write_ul_tdoa_text(const ul_tdoa_report& report, std::span<char, ul_tdoa_text_limit> out)
{
    text_writer writer{out};
    writer.text("\"ul_tdoa_data\":{\"pe_seq_no\":").number(report.pe_seq_no);
    writer.text(",\"range_mm\":").number(report.range_mm);
    writer.text(",\"tag\":{\"mac\":\"").mac(report.tag_mac).text("\",\"lqi\":").number(report.tag_lqi);
    writer.text("},\"responder\":{\"mac\":\"").mac(report.responder_mac);
    writer.text("\",\"lqi\":").number(report.resp_anchor_lqi);
    writer.text("},\"reporter\":{\"mac\":\"").mac(report.reporter_mac).text("\"}");
    if (report.board) {
        writer.text(",\"board_version\":").number(report.board->version);
        writer.text(",\"board_revision\":").number(report.board->revision);
        writer.text(",\"flags\":\"").hex_number(report.board->flags);
        writer.text("\",\"firmware_id\":\"").hex_number(report.board->firmware_id);
        writer.text("\",\"batt_voltage\":").number(report.board->batt_voltage);
    }
    if (report.percent_of_charge)
        writer.text(",\"percent_of_charge\":").number(*report.percent_of_charge);
    return writer.text("}").terminate();
}

} // namespace rtls
