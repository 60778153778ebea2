#include "rtls-sim/downlink.h"

#include <fmt/format.h>

namespace sim {

static constexpr size_t config_size = 16; // from the reporting frequency to pos_Z

std::string_view delivery_name(delivery way)
{
    static constexpr std::array<std::string_view, 4> names = {"broadcast", "direct", "wrapped",
                                                              "wrapped, direct mask"};
    return names[static_cast<size_t>(way)];
}

// A command of variable length: sequence number, length in network order, payload.
static void read_payload(reader& in, downlink_message& out)
{
    out.seq = in.u8();
    const view payload = in.take(in.be16());
    out.payload.assign(payload.begin(), payload.end());
}

// Reads the command itself, from behind its type.
static void read_command(reader& in, downlink_message& out)
{
    switch (static_cast<msg>(out.type)) {
    case msg::conf_node: {
        const view config = in.take(config_size);
        out.payload.assign(config.begin(), config.end());
        break;
    }
    case msg::rest_ack:
        out.seq = in.u8();
        break;
    default:
        read_payload(in, out);
    }
}

// The wrapper of a command to a node behind a bridge. Two kinds of content tell themselves apart by what
// the whole measures: a command is followed by MAC and address; raw node data, which brings its MAC along
// in its own block, by the address only.
static downlink_message read_wrapped(view message, delivery way)
{
    downlink_message out;
    out.way = way;
    reader in{message};
    in.take(3);
    const size_t inner_size = in.be16();
    const bool has_mac = message.size() == inner_size + 29;
    if (!has_mac && message.size() != inner_size + 21)
        return out;
    reader inner{in.take(inner_size)};
    if (has_mac)
        out.mac = in.mac();
    out.ip = in.ip();
    out.type = inner.le16();
    read_command(inner, out);
    if (!has_mac)
        out.mac = inner.mac();
    out.valid = !in.failed() && !inner.failed() && inner.left() == 0;
    return out;
}

// Raw data for a node on the gateway's own link looks like a wrapper around it, except that what it holds
// is no command.
static downlink_message read_node_data(view message)
{
    downlink_message out;
    out.way = delivery::direct;
    reader in{message};
    out.type = in.le16();
    read_payload(in, out);
    out.mac = in.mac();
    out.ip = in.ip();
    out.valid = !in.failed() && in.left() == 0;
    return out;
}

static bool is_command(uint16_t type)
{
    switch (static_cast<msg>(type)) {
    case msg::conf_node:
    case msg::generic_down:
    case msg::sensor_request:
    case msg::conf_sensor:
    case msg::tdoa_schedule:
    case msg::node_data:
        return true;
    default:
        return false;
    }
}

static downlink_message read_plain(view message)
{
    downlink_message out;
    reader in{message};
    out.type = in.le16();
    switch (static_cast<msg>(out.type)) {
    case msg::ping:
        out.seq = in.u8();
        [[fallthrough]];
    case msg::prefix_response: {
        const view rest = in.rest();
        out.payload.assign(rest.begin(), rest.end());
        out.valid = !in.failed() && (out.type == code(msg::ping) || rest.size() == 3);
        return out;
    }
    case msg::update_command:
        in.u8();
        out.valid = !in.failed() && in.left() == 0;
        return out;
    case msg::rest_ack:
    case msg::conf_node:
    case msg::generic_down:
    case msg::sensor_request:
    case msg::conf_sensor:
    case msg::tdoa_schedule:
        break;
    default:
        return out;
    }
    out.way = delivery::direct;
    read_command(in, out);
    out.ip = in.ip();
    out.valid = !in.failed() && in.left() == 0;
    return out;
}

downlink_message read_downlink(view message)
{
    reader in{message};
    const uint16_t type = in.le16();
    if ((type & ~flag_direct) != code(msg::node_data)) {
        // An echoed ping may come back with the time it was sent with.
        if (type == code(msg::wrap_ts) && message.size() > 11)
            return read_plain(message.subspan(11));
        return read_plain(message);
    }
    in.take(3);
    const uint16_t inner_type = in.le16();
    if ((type & flag_direct) == 0 && !is_command(inner_type))
        return read_node_data(message);
    const downlink_message wrapped =
        read_wrapped(message, (type & flag_direct) != 0 ? delivery::wrapped_direct : delivery::wrapped);
    return wrapped.valid || (type & flag_direct) != 0 ? wrapped : read_node_data(message);
}

std::optional<node_config> read_config(view payload)
{
    if (payload.size() != config_size)
        return std::nullopt;
    reader in{payload};
    node_config config{};
    config.reporting_freq = in.u8();
    config.ranging_freq = in.u8();
    config.role = in.u8();
    config.sublocation = in.u8();
    const bool link_order = (config.role & 0x80) != 0;
    const auto coordinate = [&] { return static_cast<int32_t>(link_order ? in.le32() : in.be32()); };
    config.x = coordinate();
    config.y = coordinate();
    config.z = coordinate();
    return config;
}

std::optional<ota_order> read_ota_order(view payload)
{
    static constexpr uint8_t start_mark = 0x20;
    reader in{payload};
    const bool is_start = in.be16() == code(sub::ota_start) && in.u8() == start_mark;
    const uint8_t size = in.u8();
    ota_order order;
    order.git_id = in.be32();
    order.crc = in.be32();
    order.size = in.be32();
    if (size == 14)
        order.source = in.be16();
    if (!is_start || (size != 12 && size != 14) || in.failed() || in.left() != 0)
        return std::nullopt;
    return order;
}

std::optional<received_page> read_ota_page(view payload)
{
    reader in{payload};
    const bool is_page = in.be16() == code(sub::ota_page);
    received_page page;
    page.id.git_id = in.be32();
    page.id.crc = in.be32();
    page.id.page_size = in.be16();
    page.id.page = in.be16();
    page.data = in.rest();
    if (!is_page || in.failed() || page.data.size() != page.id.page_size)
        return std::nullopt;
    return page;
}

static std::string describe_generic(view payload)
{
    if (const auto order = read_ota_order(payload))
        return fmt::format("OTA set: git {:08X} crc {:08X} size {} source {}", order->git_id, order->crc,
                           order->size, order->source ? fmt::format("{:04X}", *order->source) : "passive");
    if (const auto page = read_ota_page(payload))
        return fmt::format("OTA page {} of git {:08X}, {} bytes", page->id.page, page->id.git_id,
                           page->id.page_size);
    reader in{payload};
    const uint16_t command = in.be16();
    if (!in.failed() && command == code(sub::reboot))
        return "reboot";
    if (!in.failed() && command == code(sub::ota_apply))
        return "OTA apply";
    return fmt::format("{} bytes {}", payload.size(), hex(payload));
}

static std::string describe_config(view payload)
{
    const auto config = read_config(payload);
    if (!config)
        return "unreadable";
    return fmt::format("{} rf {} rngf {} sl {:02X} xyz {},{},{}", role_name(config->role & 0x0F),
                       config->reporting_freq, config->ranging_freq, config->sublocation, config->x,
                       config->y, config->z);
}

std::string describe(const downlink_message& m)
{
    if (!m.valid)
        return fmt::format("unreadable, type {:04X}", m.type);
    switch (static_cast<msg>(m.type)) {
    case msg::ping:
        return fmt::format("ping echo seq {}", m.seq);
    case msg::prefix_response:
        return fmt::format("RPL prefix {:02X}{:02X} version {}", m.payload[1], m.payload[0], m.payload[2]);
    case msg::update_command:
        return "firmware update command";
    case msg::rest_ack:
        return fmt::format("ack seq {}", m.seq);
    case msg::conf_node:
        return "configure: " + describe_config(m.payload);
    case msg::generic_down:
        return fmt::format("generic seq {}: {}", m.seq, describe_generic(m.payload));
    case msg::sensor_request:
        return fmt::format("sensor request seq {}: {}", m.seq, hex(m.payload));
    case msg::conf_sensor:
        return fmt::format("sensor configuration seq {}: {}", m.seq, hex(m.payload));
    case msg::tdoa_schedule:
        return fmt::format("TDOA schedule seq {}: {}", m.seq, hex(m.payload));
    case msg::node_data:
        return fmt::format("node data seq {}: {}", m.seq, hex(m.payload));
    default:
        return fmt::format("type {:04X}", m.type);
    }
}

} // namespace sim
