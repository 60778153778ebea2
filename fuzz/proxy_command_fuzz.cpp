// Fuzzes the commands of the pub/sub proxy from their text to the frames for the bridges.
//
// The first byte of an input selects what the node is like, and whether the rest is the text itself or
// the bytes of a command. Those may be helped to a known type, a true length and the known node's MAC,
// so that most runs get past the checks.
#include "base/czmq_ptr.h"
#include "base/hex.h"
#include "base/message_part.h"
#include "downlink/proxy_reader.h"
#include "firmware/image_download.h"
#include "firmware/ota.h"
#include "link/win_server_private.h"
#include "registry/nodes_container.h"
#include "rtls-gateway.h"
#include "support/test_gateway.h"
#include "wire/messaging.h"
#include "wire/slip.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>
#include <vector>

namespace rtls {

namespace {

constexpr uint8_t mac[mac_size] = {0xE4, 0, 0, 0, 0, 0, 0xF5, 0xF7};
constexpr uint8_t ip[ip_addr_size] = {0xFE, 0x80, 0, 0, 0, 0, 0xF5, 0xF6, 0xF7, 1, 2, 3, 4, 5, 6, 7};

namespace option {
constexpr unsigned forwarded_ip = 1;
constexpr unsigned direct_mask = 2;
constexpr unsigned no_bridge = 4; // its frames go to every bridge
constexpr unsigned is_text = 8;   // otherwise bytes
constexpr unsigned add_mac = 16;
constexpr unsigned keep_time = 32; // so that the spam filter may see a repeat
constexpr unsigned known_type = 64;
constexpr unsigned true_length = 128;
} // namespace option

void require(bool condition)
{
    if (!condition)
        std::abort();
}

// A gateway whose WIN port has no peers: frames for its two bridges end in their caches.
struct fuzzed_world {
    test_gateway gateway;
    WIN_SERVER_t* server = &gateway.win_server();
    NODES_CONTAINER_t* nodes = gateway.nodes();
    std::array<WIN_CLIENT_t*, 2> bridges{};
    zsock_t* proxy = zsock_new(ZMQ_PUSH);
    zsock_t* reader = zsock_new(ZMQ_PULL);

    fuzzed_world()
    {
        image_download_only_from({"nowhere:"}); // no run of a fuzzer fetches anything
        server->win_sock.reset(zsock_new(ZMQ_STREAM));
        for (size_t i = 0; i < bridges.size(); ++i)
            bridges[i] = add_bridge(static_cast<uint8_t>(i + 1));
        require(zsock_bind(reader, "inproc://proxy_command_fuzz") == 0);
        require(zsock_connect(proxy, "inproc://proxy_command_fuzz") == 0);
    }

    ~fuzzed_world()
    {
        for (zsock_t** sock : {&proxy, &reader})
            zsock_destroy(sock);
        server->win_sock.reset();
    }
    fuzzed_world(const fuzzed_world&) = delete;
    fuzzed_world& operator=(const fuzzed_world&) = delete;

    WIN_CLIENT_t* add_bridge(uint8_t number)
    {
        return gateway.add_bridge(std::array<uint8_t, 5>{0, 0, 0, 0, number});
    }

    void prepare_node(unsigned options)
    {
        const nodes_guard guard{*nodes};
        if ((options & option::keep_time) == 0)
            nodes_container_delete(nodes, mac);
        NODE_t* node = nodes_container_find_or_create_by_mac(nodes, mac, nullptr, 0);
        nodes_container_set_address(nodes, node, ip, (options & option::forwarded_ip) != 0);
        node->direct_mask = (options & option::direct_mask) != 0;
        node->win_client_id.reset();
        if ((options & option::no_bridge) == 0)
            node_update_win_client_ID(node, bridges[0]->id);
    }
};

fuzzed_world& world()
{
    static fuzzed_world instance;
    return instance;
}

constexpr gwCmdID_t types[] = {
    MSG_NWK_DATA_15_4_REQ, MSG_CONF_NODE_REQ,       MSG_GENERIC_REQ,        MSG_REST_ACK,     MSG_SENSOR_REQ,
    MSG_CONF_SENSOR_REQ,   MSG_TDOA_SCHED_CONF_REQ, MSG_FW_IMAGE_AVAIL_IND, MSG_OTA_UPLOAD_FW};

std::vector<uint8_t> command_of(unsigned options, bytes_view input)
{
    std::vector<uint8_t> command{input.begin(), input.end()};
    if ((options & option::add_mac) != 0)
        command.insert(command.end(), std::begin(mac), std::end(mac));
    if (command.size() < msgHeader_t::size)
        return command;
    if ((options & option::known_type) != 0)
        store_be16(command, 0, types[command[0] % std::size(types)]);
    // The length counts from behind the header, or from behind 8 bytes more, to the MAC.
    const bool is_network_data = load_be16(command, 0) == MSG_NWK_DATA_15_4_REQ;
    const size_t uncounted = msgHeader_t::size + mac_size + (is_network_data ? 8 : 0);
    if ((options & option::true_length) != 0 && command.size() >= uncounted)
        store_be16(command, msgHeader_t::total_len, static_cast<uint16_t>(command.size() - uncounted));
    return command;
}

std::string text_of(unsigned options, bytes_view input)
{
    if ((options & option::is_text) != 0)
        return {input.begin(), input.end()};
    return to_hex(command_of(options, input));
}

// Every frame for a bridge is framed soundly and ends in the node's address.
void check_frame(bytes_view frame)
{
    require(frame.size() >= 2 && frame.front() == slip_start && frame.back() == slip_end);
    std::vector<uint8_t> message;
    for (size_t i = 1; i + 1 < frame.size(); ++i) {
        if (frame[i] == slip_esc)
            ++i;
        require(i + 1 < frame.size());
        message.push_back(frame[i]);
    }
    require(message.size() >= gwMsgAck_t::size && message[1] >= 0x08);
    require(std::equal(std::begin(ip), std::end(ip), message.end() - ip_addr_size));
}

// Takes and checks what is cached for the bridge; how many frames that were.
size_t take_frames(WIN_CLIENT_t* bridge)
{
    size_t count = 0;
    for (unsent_queue& unsent = bridge->unsent_messages; !unsent.empty(); unsent.pop(), ++count)
        check_frame(unsent.front());
    return count;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const unsigned options = data[0];
    const std::string text = text_of(options, {data + 1, size - 1});
    fuzzed_world& w = world();
    w.prepare_node(options);
    message_part command{
        bytes_view{reinterpret_cast<const uint8_t*>(text.data()), text.size()}}; // with any zeros
    require(command.send(zsock_resolve(w.proxy)));
    require(handle_pub_sub_proxy(nullptr, w.reader, w.server) == 0);

    // Nothing but the node of the command is written to, once; with no bridge of its own, through all.
    const size_t first = take_frames(w.bridges[0]);
    const size_t second = take_frames(w.bridges[1]);
    require(first <= 1 && second == ((options & option::no_bridge) != 0 ? first : 0));
    require(nodes_container_get_size(w.nodes) == 1);
    ota_del_firmware(rtls_gateway_get_ota(w.gateway.handle()), 0);
    return 0;
}

} // namespace rtls
