// wire - the vocabulary of the network as its nodes, bridges and servers speak it, and bytes to say it in.
//
// The simulator keeps a codec of its own: what the daemon and the simulator agree on, two independent
// readings of the protocol agree on.
// Threads    Any; readers and deframers belong to one at a time.
// Failures   Text that is no number or address is nothing; a reader that has run out has failed() from then on.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

using bytes = std::vector<uint8_t>;
using view = std::span<const uint8_t>;
using mac_bytes = std::array<uint8_t, 8>;
using ip_bytes = std::array<uint8_t, 16>;

// Message types, as the low-level network numbers them. 0x080D also means "diagnostics response"; on the
// proxy it is always the firmware announcement.
enum class msg : uint16_t {
    ping = 0x0000,
    ota_upload = 0x0012,
    forwarded = 0x0100, // envelope of a node's message that a bridge passes on
    prefix_request = 0x0101,
    root_announce = 0x0103,
    heartbeat = 0x0104,
    generic_up = 0x010E,
    node_announce = 0x010F,
    sensor_report = 0x0116,
    update_command = 0x0118,
    wrap_ts = 0x0200, // time of generation in front of a message
    node_data = 0x0800,
    conf_node = 0x0804,
    firmware_available = 0x080D,
    generic_down = 0x080E,
    rest_ack = 0x0810,
    sensor_request = 0x0815,
    conf_sensor = 0x0816,
    tdoa_schedule = 0x0817,
    forwarded_foreign = 0x0A00, // as forwarded, but the node keeps its own bridge
    prefix_response = 0x8102,
};

constexpr uint16_t code(msg type)
{
    return static_cast<uint16_t>(type);
}

// Flag bits in the type of an upward message.
constexpr uint16_t flag_ack = 0x1000;
constexpr uint16_t flag_direct = 0x2000;

// Sub-commands that open the payload of a generic message, big-endian.
enum class sub : uint16_t {
    reboot = 1,
    route_request = 10,
    ota_start = 14, // "set": what to fetch, and from whom
    ota_page = 16,
    ota_apply = 17,
    ul_tdoa = 40,
    range_report = 48,
};

constexpr uint16_t code(sub command)
{
    return static_cast<uint16_t>(command);
}

enum class role : uint8_t { undefined, fixed, mobile, pending, bridge, tdoa_mobile, sensor };
constexpr size_t roles = 7;
std::string_view role_name(unsigned role);

// Writes numbers with the byte order in the verb.
class writer {
public:
    writer& u8(uint8_t value);
    writer& le16(uint16_t value);
    writer& be16(uint16_t value);
    writer& le32(uint32_t value);
    writer& be32(uint32_t value);
    writer& be64(uint64_t value);
    writer& raw(view data);
    bytes take() { return std::move(m_out); }

private:
    bytes m_out;
};

// Reads them back. A read past the end yields zeros, and failed() from then on.
class reader {
public:
    explicit reader(view data) : m_data(data) {}
    uint8_t u8();
    uint16_t le16();
    uint16_t be16();
    uint32_t le32();
    uint32_t be32();
    uint64_t be64();
    view take(size_t count); // empty when fewer are left
    view rest();
    mac_bytes mac();
    ip_bytes ip();
    size_t left() const { return m_data.size(); }
    bool failed() const { return m_failed; }

private:
    view m_data;
    bool m_failed = false;
};

std::string hex(view data); // upper case
std::optional<bytes> from_hex(std::string_view text);
std::optional<uint32_t> hex_number(std::string_view text); // up to eight hex digits

// The MAC of bridge `bridge` (from 1) or, with `node` from 1, of a node behind it. Its last two bytes,
// by which operators name a node, read as <bridge><node>: 0102 is the second node of the first bridge.
mac_bytes device_mac(unsigned bridge, unsigned node);
// The link-local address that follows from a MAC.
ip_bytes device_ip(const mac_bytes& mac);
std::string short_mac(const mac_bytes& mac);
// Sixteen hex digits (colons allowed), or four, which stand for a simulated device's short MAC.
std::optional<mac_bytes> parse_mac(std::string_view text);
std::string ip_text(const ip_bytes& ip);

// CRC-32 as everybody computes it, and the one of the daemon's firmware announcements: the same
// polynomial without either inversion.
uint32_t crc32(view data);
uint32_t crc32_uninverted(view data);

// Byte stuffing: START message END, special bytes behind ESC.
void append_frame(bytes& out, view message);

class deframer {
public:
    // Takes received bytes apart; complete(view) is called with each message.
    template <typename Complete>
    void feed(view received, Complete&& complete)
    {
        for (uint8_t byte : received)
            if (push(byte))
                complete(view{m_message});
    }

private:
    bool push(uint8_t byte); // true when `byte` completed a message

    enum class state { outside, start, data, escaped };
    state m_state = state::outside;
    bytes m_message;
};

// What the simulator puts at the end of sensor reports to measure loss and latency exactly,
// even when reports are received by another process.
struct report_stamp {
    uint32_t run;     // tells runs apart
    uint64_t counter; // 1, 2, 3, ...
    uint64_t time_ns; // real-time clock when sent
};
constexpr size_t stamp_size = 24;
bytes encode_stamp(const report_stamp& stamp);
std::optional<report_stamp> find_stamp(view payload);
// The same at the end of a range report, as entries that look like ranges to whoever reads them as such: any peer, a
// distance below 66 m, a quality below 256. Of the counter 40 bits travel.
constexpr size_t range_stamp_size = 32;
bytes encode_range_stamp(const report_stamp& stamp);
std::optional<report_stamp> find_range_stamp(view payload);
uint64_t realtime_ns();

} // namespace sim
