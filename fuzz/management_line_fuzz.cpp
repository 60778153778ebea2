// What leaves for the servers when bridges send what they like: each line is JSON by the letter behind its head,
// each report has its time in front, and no message becomes more than one of them.
#include "fuzzing.h"
#include "registry/nodes_container.h"
#include "sent_parts.h"
#include "strict_json.h"
#include "support/idle_gateway.h"
#include "uplink/messages.h"
#include "wire/messaging.h"

#include <cerrno>
#include <cstring>

namespace rtls {

using fuzzing::require;

namespace {

constexpr uint8_t known_mac[mac_size] = {0xE4, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8};
constexpr uint8_t known_address[ip_addr_size] = {0x20, 0x01};

constexpr uint16_t sub_commands[] = {GENERIC_REQ_RouteRequest, GENERIC_REQ_UltdoaData, GENERIC_REQ_RangeRpt,
                                     GENERIC_REQ_OtaPage};

namespace what {
constexpr unsigned sub_command = 0x03;
constexpr unsigned sensor_report = 0x04;
constexpr unsigned forwarded = 0x08;
constexpr unsigned other_length = 0x10; // than the message has
constexpr unsigned with_time = 0x20;
constexpr unsigned own_head = 0x40; // all of the message is the input's
constexpr unsigned refused = 0x80;  // the servers take nothing
} // namespace what

struct fuzzed_world : idle_gateway {
    fuzzed_world()
    {
        fuzzing::refuse_parts(zsock_resolve(server().win_sock.get()), EHOSTUNREACH);
        debug_mask = 0; // lines of the debug stream are caught elsewhere
    }

    void begin()
    {
        delete_nodes();
        const nodes_guard guard{*nodes()};
        NODE_t* node = nodes_container_find_or_create_by_mac(nodes(), known_mac, nullptr, 0);
        nodes_container_set_address(nodes(), node, known_address, false);
        node_update_win_client_ID(node, bridge().id);
    }

    void* handler() { return zsock_resolve(server().msg_handler_sock.get()); }
    void* proxy_input() { return zsock_resolve(server().proxy_input_sock.get()); }

    void process(bytes_view frame)
    {
        bridge().pending_data.reset(static_cast<uint8_t*>(std::malloc(frame.size())));
        bridge().pending_data_size = bridge().pending_buffsize = frame.size();
        if (!frame.empty())
            std::memcpy(bridge().pending_data, frame.data(), frame.size());
        process_data_from_win_client(&server(), &bridge());
        drop_unsent(bridge());
    }
};

void append(std::vector<uint8_t>& to, bytes_view bytes)
{
    to.insert(to.end(), bytes.begin(), bytes.end());
}

std::vector<uint8_t> header(uint16_t type, uint8_t sequence_number, size_t length)
{
    std::vector<uint8_t> bytes(msgHeader_t::size);
    store_le16(bytes, msgHeader_t::msgType, type);
    bytes[msgHeader_t::seqNo] = sequence_number;
    store_le16(bytes, msgHeader_t::total_len, static_cast<uint16_t>(length));
    return bytes;
}

std::vector<uint8_t> message_of(unsigned options, fuzzing::input& input)
{
    const uint8_t sequence_number = input.u8();
    const size_t other_length = (options & what::other_length) != 0 ? input.be16() : 0;
    std::vector<uint8_t> payload;
    if ((options & what::sensor_report) == 0) {
        payload.resize(2);
        store_be16(payload, 0, sub_commands[options & what::sub_command]);
    }
    append(payload, input.view(input.u8()));
    auto message = header((options & what::sensor_report) != 0 ? MSG_SENSOR_IND_NEW : MSG_GENERIC_SERVER_REQ,
                          sequence_number, other_length != 0 ? other_length : payload.size());
    append(message, payload);
    return message;
}

std::vector<uint8_t> frame_of(unsigned options, fuzzing::input& input)
{
    if ((options & what::own_head) != 0)
        return input.copy(input.u8());
    std::vector<uint8_t> frame;
    if ((options & what::with_time) != 0) {
        frame = header(MSG_WRAP_TS, 0, 0);
        append(frame, input.view(wrap_ts::size - wrap_ts::seconds));
        frame.resize(wrap_ts::size);
    }
    const auto message = message_of(options, input);
    if ((options & what::forwarded) != 0)
        append(frame, header(MSG_NWK_DATA_15_4_IND, 0, message.size()));
    append(frame, message);
    if ((options & what::forwarded) != 0)
        append(frame, known_mac);
    append(frame, known_address);
    return frame;
}

// "@win_management {"ts":<at least 10 places>,"ms":<at least 3>,", and the rest of an object.
void check_line(const std::string& line)
{
    static constexpr std::string_view name = "@win_management ";
    require(line.starts_with(name));
    require(fuzzing::is_strict_json(std::string_view{line}.substr(name.size())));
    const std::string_view object = std::string_view{line}.substr(name.size());
    require(object.starts_with("{\"ts\":") && object.find(",\"ms\":") == 16 && object.find(',', 17) == 25);
    const std::string_view text = object.substr(26);
    require(text.starts_with("\"route_request\":{") || text.starts_with("\"ul_tdoa_data\":{"));
}

void check_report(const std::string& time, const std::string& report)
{
    require(time.size() == report_timestamp::size);
    require(report.size() >= mac_size && report.size() <= 1050);
    if (report.size() < msgHeader_t::size + mac_size)
        return; // of a length that has wrapped: the sender's MAC stands where the header would
    const auto* bytes = reinterpret_cast<const uint8_t*>(report.data());
    const uint16_t type = load_be16({bytes, report.size()}, 0);
    require(type == MSG_ANNOUNCE_ROOT_IND || type == MSG_HEARTBEAT_IND || type == MSG_NODE_ANNOUNCE_IND ||
            type == MSG_GENERIC_SERVER_REQ || type == MSG_SENSOR_IND_NEW);
}

// Nothing, one line, or one report.
void check_output(fuzzed_world& world)
{
    const auto& parts = fuzzing::sent_parts();
    if (parts.empty())
        return;
    if (parts[0].socket == world.proxy_input()) {
        require(parts.size() == 1 && !parts[0].is_followed);
        check_line(parts[0].bytes);
        return;
    }
    require(parts.size() == 2 && parts[0].is_followed && !parts[1].is_followed);
    require(parts[0].socket == world.handler() && parts[1].socket == world.handler());
    check_report(parts[0].bytes, parts[1].bytes);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static fuzzed_world world;
    fuzzing::input input{data, size};
    world.begin();
    for (int frames = 0; frames < 16 && !input.empty(); ++frames) {
        const unsigned options = input.u8();
        const int error = (options & what::refused) != 0 ? EAGAIN : 0;
        fuzzing::refuse_parts(world.handler(), error);
        fuzzing::refuse_parts(world.proxy_input(), error);
        world.process(frame_of(options, input));
        check_output(world);
        fuzzing::sent_parts().clear();
    }
    return 0;
}

} // namespace rtls
