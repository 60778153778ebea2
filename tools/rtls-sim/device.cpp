#include "rtls-sim/device.h"

#include <array>

namespace sim {

// The longest payloads that the gateway takes: beyond these it drops a report.
static constexpr size_t longest_sensor_payload = 287;
static constexpr size_t longest_generic_payload = 1037;
// A sub-command that no server knows: such requests only pass through.
static constexpr uint16_t unassigned_command = 99;

uint8_t device::next_seq()
{
    seq = seq == 255 ? uint8_t{1} : static_cast<uint8_t>(seq + 1);
    return seq;
}

static role role_of(unsigned node)
{
    static constexpr std::array roles_of_nodes = {role::fixed,  role::mobile,  role::tdoa_mobile,
                                                  role::sensor, role::pending, role::undefined,
                                                  role::fixed,  role::mobile};
    return node == 0 ? role::bridge : roles_of_nodes[(node - 1) % roles_of_nodes.size()];
}

device make_device(unsigned bridge, unsigned node, unsigned forwarded_percent, std::mt19937_64& random)
{
    device d;
    d.bridge = bridge;
    d.node = node;
    d.signs.mac = device_mac(bridge, node);
    d.signs.parent = device_mac(bridge, 0);
    d.ip = device_ip(d.signs.mac);
    d.signs.role = static_cast<uint8_t>(role_of(node));
    d.signs.state = static_cast<uint8_t>(random() % 4 << 4);
    d.signs.sublocation = static_cast<uint8_t>(bridge);
    d.signs.sw_version = 0x0102A0FF;
    d.signs.x = static_cast<int32_t>(random() % 200'000) - 100'000;
    d.signs.y = static_cast<int32_t>(random() % 200'000) - 100'000;
    d.signs.z = static_cast<int32_t>(random() % 5'000);
    // Spread evenly: of any hundred nodes in a row, that many are forwarded.
    d.forwarded = node != 0 && node * forwarded_percent / 100 != (node - 1) * forwarded_percent / 100;
    d.direct_mask = d.forwarded && random() % 2 == 0;
    d.seq = static_cast<uint8_t>(random());
    return d;
}

kind report_maker::choose(const device& from)
{
    // Drawn from a deck per role, in which a kind stands as often as it is likely.
    using enum kind;
    static constexpr std::array bridge_deck = {heartbeat, heartbeat, root_announce, route, ping, ping, ping};
    static constexpr std::array fixed_deck = {heartbeat, range,   range, range,
                                              ul_tdoa,   ul_tdoa, route, generic};
    static constexpr std::array mobile_deck = {heartbeat, sensor, sensor, range, range, range};
    static constexpr std::array tdoa_deck = {heartbeat, sensor, sensor, ul_tdoa, ul_tdoa, ul_tdoa};
    static constexpr std::array sensor_deck = {heartbeat, sensor, sensor, sensor, sensor, generic};
    static constexpr std::array idle_deck = {heartbeat, heartbeat, node_announce};
    const auto draw = [&](std::span<const kind> deck) { return deck[below(deck.size())]; };
    if (from.is_bridge())
        return draw(bridge_deck);
    switch (static_cast<role>(from.signs.role & 0x0F)) {
    case role::fixed:
        return draw(fixed_deck);
    case role::mobile:
        return draw(mobile_deck);
    case role::tdoa_mobile:
        return draw(tdoa_deck);
    case role::sensor:
        return draw(sensor_deck);
    default:
        return draw(idle_deck);
    }
}

uplink_message report_maker::make(kind k, device& from, const mac_bytes& via, uint16_t prefix,
                                  uint8_t version)
{
    switch (k) {
    case kind::root_announce:
        return make_root_announce(from.signs.mac, from.next_seq(), prefix, version);
    case kind::sensor:
        return make_sensor_of(from);
    case kind::range:
        return make_ranges_of(from);
    case kind::ul_tdoa:
        return make_ul_tdoa_of(from);
    case kind::route:
        return make_route_of(from);
    case kind::generic:
        return make_generic_of(from);
    default:
        return make_heartbeat(k, from.signs, from.next_seq(), via);
    }
}

uplink_message report_maker::make_ping_of(device& bridge)
{
    const uint8_t seq = bridge.next_seq();
    return make_ping(bridge.signs.mac, seq, noise(8));
}

bool report_maker::chance(unsigned percent)
{
    return below(100) < percent;
}

uint64_t report_maker::below(uint64_t limit)
{
    return m_random() % limit;
}

bytes report_maker::noise(size_t size)
{
    bytes out(size);
    for (uint8_t& byte : out)
        byte = static_cast<uint8_t>(m_random());
    return out;
}

report_stamp report_maker::next_stamp()
{
    return {m_run, ++m_stamps, realtime_ns()};
}

uplink_message report_maker::make_sensor_of(device& from)
{
    // Now and then the longest there is.
    const size_t size = chance(2) ? longest_sensor_payload - stamp_size : 4 + below(24);
    bytes payload = noise(size);
    const bytes stamp = encode_stamp(next_stamp());
    payload.insert(payload.end(), stamp.begin(), stamp.end());
    return make_sensor(from.signs.mac, from.next_seq(), payload);
}

uplink_message report_maker::make_ranges_of(device& from)
{
    std::vector<range_entry> entries(1 + below(6));
    for (range_entry& entry : entries)
        entry = {static_cast<uint16_t>(from.bridge << 8 | (1 + below(20))),
                 static_cast<uint32_t>(below(30'000)), static_cast<uint16_t>(below(256))};
    return make_range(from.signs.mac, from.next_seq(), entries, next_stamp());
}

uplink_message report_maker::make_ul_tdoa_of(device& from)
{
    static constexpr std::array forms = {tdoa_form::bare, tdoa_form::with_board, tdoa_form::with_charge};
    tdoa_sample s;
    s.tag = device_mac(from.bridge, static_cast<unsigned>(1 + below(8)));
    s.pe_seq_no = ++from.samples;
    s.responder = device_mac(from.bridge, static_cast<unsigned>(1 + below(8)));
    s.reporter = from.signs.mac;
    s.range_mm = static_cast<int32_t>(below(60'000)) - 30'000;
    s.tag_lqi = static_cast<uint8_t>(below(256));
    s.responder_lqi = static_cast<uint8_t>(below(256));
    s.board_version = 3;
    s.board_revision = 1;
    s.flags = static_cast<uint16_t>(below(65'536));
    s.firmware_id = from.signs.sw_version;
    s.battery = static_cast<uint16_t>(3'000 + below(1'200));
    s.charge = static_cast<uint8_t>(below(101));
    return make_ul_tdoa(from.signs.mac, from.next_seq(), s, forms[below(forms.size())]);
}

uplink_message report_maker::make_route_of(device& from)
{
    std::vector<route_neighbour> neighbours(1 + below(4));
    for (route_neighbour& neighbour : neighbours)
        neighbour = {device_mac(from.bridge, static_cast<unsigned>(1 + below(8))),
                     static_cast<uint8_t>(below(256))};
    return make_route(from.signs.mac, from.next_seq(), from.signs.mac, neighbours);
}

uplink_message report_maker::make_generic_of(device& from)
{
    const size_t size = chance(5) ? longest_generic_payload - 2 : below(64);
    return make_generic(from.signs.mac, from.next_seq(), unassigned_command, noise(size));
}

} // namespace sim
