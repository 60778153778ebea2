// Bytes from a bridge: whatever they are, no frame makes the daemon read past it or stumble.
//
// Each input is taken twice: as one frame, and as a stream that the decoder cuts into frames. A frame
// is processed in a buffer of exactly its size, so that a read past its end does not go unseen.
#include "bytes.h"
#include "nodes_container.h"
#include "support/idle_gateway.h"

#include <cstdlib>
#include <cstring>

namespace {

// A node known by its address, so that direct messages of its find a sender.
constexpr uint8_t known_mac[mac_size] = {0xE4, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8};
constexpr uint8_t known_address[ip_addr_size] = {0};

void forget_everything(idle_gateway& gateway)
{
    WIN_SERVER_t& server = gateway.server();
    idle_gateway::drop_unsent(gateway.bridge());
    gateway.delete_nodes();
    if (server.rpl_timer_is_active) {
        zloop_destroy(&server.actor_loop);
        server.actor_loop = zloop_new();
    }
    server.rpl_timer_is_active = server.unprocessed_MSG_PANID_REQ = false;

    const nodes_guard guard{gateway.nodes()};
    NODE_t* node = nodes_container_find_or_create_by_mac(gateway.nodes(), known_mac, nullptr, 0);
    nodes_container_set_address(gateway.nodes(), node, known_address, false);
    node_update_win_client_ID(node, gateway.bridge().id);
}

void process_frame(idle_gateway& gateway, bytes_view frame)
{
    WIN_CLIENT_t& bridge = gateway.bridge();
    free(bridge.pending_data);
    bridge.pending_data = static_cast<uint8_t*>(malloc(frame.size()));
    bridge.pending_data_size = bridge.pending_buffsize = frame.size();
    if (!frame.empty())
        memcpy(bridge.pending_data, frame.data(), frame.size());
    process_data_from_win_client(&gateway.server(), &bridge);
}

void process_decoded(void* p_gateway, WIN_CLIENT_t& decoder)
{
    process_frame(*static_cast<idle_gateway*>(p_gateway), {decoder.pending_data, decoder.pending_data_size});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static idle_gateway gateway;
    static constexpr uint8_t decoder_identity[] = {0x00, 0x55, 0x66, 0x77, 0x88};
    static WIN_CLIENT_t* decoder = gateway.add_bridge(decoder_identity);
    debug_mask = 0xFFFF; // every line is formatted

    process_frame(gateway, {data, size});
    forget_everything(gateway);
    idle_gateway::drop_unsent(*decoder);

    decoder->parsing_state = PS_NONE;
    win_client_decode(*decoder, {data, size}, process_decoded, &gateway);
    forget_everything(gateway);
    idle_gateway::drop_unsent(*decoder);
    return 0;
}
