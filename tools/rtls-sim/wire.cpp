#include "rtls-sim/wire.h"

#include <fmt/format.h>

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <ctime>

namespace sim {

std::string_view role_name(unsigned role)
{
    static constexpr std::array<std::string_view, roles> names = {
        "undefined", "fixed", "mobile", "pending", "bridge", "tdoa-mobile", "sensor"};
    return role < names.size() ? names[role] : "unknown";
}

writer& writer::u8(uint8_t value)
{
    m_out.push_back(value);
    return *this;
}

writer& writer::le16(uint16_t value)
{
    return u8(static_cast<uint8_t>(value)).u8(static_cast<uint8_t>(value >> 8));
}

writer& writer::be16(uint16_t value)
{
    return u8(static_cast<uint8_t>(value >> 8)).u8(static_cast<uint8_t>(value));
}

writer& writer::le32(uint32_t value)
{
    return le16(static_cast<uint16_t>(value)).le16(static_cast<uint16_t>(value >> 16));
}

writer& writer::be32(uint32_t value)
{
    return be16(static_cast<uint16_t>(value >> 16)).be16(static_cast<uint16_t>(value));
}

writer& writer::be64(uint64_t value)
{
    return be32(static_cast<uint32_t>(value >> 32)).be32(static_cast<uint32_t>(value));
}

writer& writer::raw(view data)
{
    m_out.insert(m_out.end(), data.begin(), data.end());
    return *this;
}

view reader::take(size_t count)
{
    if (count > m_data.size()) {
        m_failed = true;
        m_data = {};
        return {};
    }
    const view taken = m_data.first(count);
    m_data = m_data.subspan(count);
    return taken;
}

view reader::rest()
{
    return take(m_data.size());
}

uint8_t reader::u8()
{
    const view b = take(1);
    return b.empty() ? uint8_t{0} : b[0];
}

uint16_t reader::le16()
{
    const view b = take(2);
    return b.empty() ? uint16_t{0} : static_cast<uint16_t>(b[1] << 8 | b[0]);
}

uint16_t reader::be16()
{
    const view b = take(2);
    return b.empty() ? uint16_t{0} : static_cast<uint16_t>(b[0] << 8 | b[1]);
}

uint32_t reader::le32()
{
    const uint32_t low = le16();
    return low | uint32_t{le16()} << 16;
}

uint32_t reader::be32()
{
    const uint32_t high = be16();
    return high << 16 | be16();
}

uint64_t reader::be64()
{
    const uint64_t high = be32();
    return high << 32 | be32();
}

mac_bytes reader::mac()
{
    mac_bytes mac{};
    std::ranges::copy(take(mac.size()), mac.begin());
    return mac;
}

ip_bytes reader::ip()
{
    ip_bytes ip{};
    std::ranges::copy(take(ip.size()), ip.begin());
    return ip;
}

std::string hex(view data)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(2 * data.size());
    for (uint8_t byte : data) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

static int digit_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::optional<bytes> from_hex(std::string_view text)
{
    if (text.size() % 2 != 0)
        return std::nullopt;
    bytes out;
    out.reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        const int high = digit_value(text[i]);
        const int low = digit_value(text[i + 1]);
        if (high < 0 || low < 0)
            return std::nullopt;
        out.push_back(static_cast<uint8_t>(high << 4 | low));
    }
    return out;
}

std::optional<uint32_t> hex_number(std::string_view text)
{
    if (text.starts_with("0x") || text.starts_with("0X"))
        text.remove_prefix(2);
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (error != std::errc{} || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

mac_bytes device_mac(unsigned bridge, unsigned node)
{
    return {0xE4,
            0x5E,
            0x51,
            0x00,
            static_cast<uint8_t>(bridge >> 8),
            static_cast<uint8_t>(node >> 8),
            static_cast<uint8_t>(bridge),
            static_cast<uint8_t>(node)};
}

ip_bytes device_ip(const mac_bytes& mac)
{
    ip_bytes ip{0xFE, 0x80};
    std::ranges::copy(mac, ip.begin() + 8);
    ip[8] ^= 0x02; // an interface identifier is the MAC with its universal bit turned over
    return ip;
}

std::string short_mac(const mac_bytes& mac)
{
    return hex(view{mac}.last(2));
}

std::optional<mac_bytes> parse_mac(std::string_view text)
{
    std::string digits{text};
    std::erase(digits, ':');
    const auto decoded = from_hex(digits);
    if (!decoded)
        return std::nullopt;
    if (decoded->size() == 2)
        return device_mac((*decoded)[0], (*decoded)[1]);
    mac_bytes mac{};
    if (decoded->size() != mac.size())
        return std::nullopt;
    std::ranges::copy(*decoded, mac.begin());
    return mac;
}

std::string ip_text(const ip_bytes& ip)
{
    char text[INET6_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET6, ip.data(), text, sizeof text);
    return text;
}

// Bit by bit is fast enough for images of some 100 kB, and hard to get wrong.
static uint32_t crc_after(uint32_t crc, view data)
{
    for (uint8_t byte : data) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = crc >> 1 ^ ((crc & 1) != 0 ? 0xEDB88320U : 0U);
    }
    return crc;
}

uint32_t crc32(view data)
{
    return ~crc_after(0xFFFFFFFFU, data);
}

uint32_t crc32_uninverted(view data)
{
    return crc_after(0, data);
}

static constexpr uint8_t frame_start = 0xF5;
static constexpr uint8_t frame_escape = 0xF6;
static constexpr uint8_t frame_end = 0xF7;

void append_frame(bytes& out, view message)
{
    out.push_back(frame_start);
    for (uint8_t byte : message) {
        if (byte >= frame_start && byte <= frame_end)
            out.push_back(frame_escape);
        out.push_back(byte);
    }
    out.push_back(frame_end);
}

bool deframer::push(uint8_t byte)
{
    if (m_state == state::escaped) {
        m_message.push_back(byte);
        m_state = state::data;
        return false;
    }
    if (byte == frame_start) {
        m_message.clear();
        m_state = state::start;
        return false;
    }
    if (m_state == state::outside)
        return false; // the greeting, or noise
    if (byte == frame_end) {
        const bool complete = m_state == state::data;
        m_state = state::outside;
        return complete;
    }
    if (byte == frame_escape) {
        m_state = state::escaped;
        return false;
    }
    m_message.push_back(byte);
    m_state = state::data;
    return false;
}

static constexpr uint32_t stamp_magic = 0x53494D31; // "SIM1"

bytes encode_stamp(const report_stamp& stamp)
{
    return writer{}.be32(stamp_magic).be32(stamp.run).be64(stamp.counter).be64(stamp.time_ns).take();
}

std::optional<report_stamp> find_stamp(view payload)
{
    if (payload.size() < stamp_size)
        return std::nullopt;
    reader in{payload.last(stamp_size)};
    if (in.be32() != stamp_magic)
        return std::nullopt;
    report_stamp stamp{};
    stamp.run = in.be32();
    stamp.counter = in.be64();
    stamp.time_ns = in.be64();
    return stamp;
}

static constexpr uint8_t range_stamp_magic[] = {0x53, 0x49, 0x4D};  // "SIM"
static constexpr size_t range_stamp_entries = range_stamp_size / 8; // of peer, distance and quality

bytes encode_range_stamp(const report_stamp& stamp)
{
    const bytes packed = writer{}
                             .raw(range_stamp_magic)
                             .be32(stamp.run)
                             .u8(static_cast<uint8_t>(stamp.counter >> 32))
                             .be32(static_cast<uint32_t>(stamp.counter))
                             .be64(stamp.time_ns)
                             .take();
    reader in{packed};
    writer out;
    for (size_t i = 0; i < range_stamp_entries; ++i)
        out.be16(in.be16()).be32(in.be16()).be16(in.u8());
    return out.take();
}

std::optional<report_stamp> find_range_stamp(view payload)
{
    if (payload.size() < range_stamp_size)
        return std::nullopt;
    reader entries{payload.last(range_stamp_size)};
    writer packed;
    for (size_t i = 0; i < range_stamp_entries; ++i)
        packed.be16(entries.be16())
            .be16(static_cast<uint16_t>(entries.be32()))
            .u8(static_cast<uint8_t>(entries.be16()));
    const bytes stamped = packed.take();
    reader in{stamped};
    if (!std::ranges::equal(in.take(sizeof range_stamp_magic), range_stamp_magic))
        return std::nullopt;
    report_stamp stamp{};
    stamp.run = in.be32();
    stamp.counter = uint64_t{in.u8()} << 32;
    stamp.counter |= in.be32();
    stamp.time_ns = in.be64();
    return stamp;
}

uint64_t realtime_ns()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<uint64_t>(now.tv_nsec);
}

} // namespace sim
