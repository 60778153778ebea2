// One frame from a bridge, from the decoder's hand-over to what it causes: registry, ack, reports.
//
// The upstream peers are in this process and emptied between batches, outside of the measurement, so that
// no queue is ever full. Debug sections are off and there is no broker, as in the field.
#include "firmware/ota.h"
#include "link/win_server_win_clients.h"
#include "registry/nodes_container.h"
#include "rtls-gateway.h"
#include "support/hex_bytes.h"
#include "support/idle_gateway.h"
#include "uplink/messages.h"
#include "wire/messaging.h"

#include <benchmark/benchmark.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace rtls {

namespace {

// Below the depth of every queue.
constexpr size_t batch = 250;

const bytes_t sender_ip = hex("FE 80 00 00 00 00 00 00 00 A2 A3 A4 00 00 00 00"); // of node 0
const bytes_t sender_mac = hex("E4 A2 A3 A4 00 00 00 00");
const bytes_t bridge_mac = hex("AB CD EF 01 2A BC DE 3F");

// A gateway between a bridge on a real connection and two servers.
class dispatch_world : public idle_gateway {
public:
    dispatch_world()
        : m_handler(new_peer(server().msg_handler_sock)), m_proxy(new_peer(server().proxy_input_sock)),
          m_connection(connect_bridge()), m_replies(win_client_new(m_bridge->id))
    {
        server().rpl_timer_is_active = true; // PANID requests only leave a note
    }

    ~dispatch_world()
    {
        close(m_connection);
        void* replies = m_replies;
        win_client_destroy(&replies);
        zsock_destroy(&m_handler);
        zsock_destroy(&m_proxy);
    }

    dispatch_world(const dispatch_world&) = delete;
    dispatch_world& operator=(const dispatch_world&) = delete;

    // Known nodes, each by MAC and by address; their number is in the last four bytes of both.
    void introduce(size_t count)
    {
        const nodes_guard guard{*nodes()};
        bytes_t mac = sender_mac;
        bytes_t ip = sender_ip;
        for (uint32_t i = 0; i < count; i++) {
            store_be32(mac, 4, i);
            store_be32(ip, 12, i);
            NODE_t* node = nodes_container_find_or_create_by_mac(nodes(), mac.data(), nullptr, 0);
            nodes_container_set_address(nodes(), node, ip.data(), false);
            node_update_win_client_ID(node, m_bridge->id);
        }
    }

    bool receive(const bytes_t& frame)
    {
        std::memcpy(m_bridge->pending_data, frame.data(), frame.size());
        m_bridge->pending_data_size = frame.size();
        return process_data_from_win_client(&server(), m_bridge);
    }

    // Takes what the servers and the bridge have been sent; false when it is not as many messages as that.
    bool take(size_t expected)
    {
        size_t taken = empty(m_handler) + empty(m_proxy);
        uint8_t bytes[65536];
        while (taken < expected) {
            const ssize_t size = recv(m_connection, bytes, sizeof bytes, 0);
            if (size <= 0)
                return false;
            win_client_decode(*m_replies, {bytes, static_cast<size_t>(size)},
                              [&](WIN_CLIENT_t&) { ++taken; });
        }
        (void)zsock_events(server().win_sock); // has it notice that the connection has been emptied
        return taken == expected;
    }

private:
    static zsock_t* new_peer(zsock_t* server_sock)
    {
        static int number = 0; // a closed socket gives its name up some time later
        const std::string endpoint = "inproc://dispatch_bench_" + std::to_string(++number);
        zsock_t* peer = zsock_new_pull(("@" + endpoint).c_str());
        zsock_connect(server_sock, "%s", endpoint.c_str());
        return peer;
    }

    // Connects to the WIN port, and has the server take the connection in.
    int connect_bridge()
    {
        const int port = zsock_bind(server().win_sock, "tcp://127.0.0.1:*");
        const int connection = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const timeval patience{.tv_sec = 5, .tv_usec = 0};
        setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        if (connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            abort();
        while (server().clients.size() < 2) // the other is the one that is never connected
            handle_win_clients(server().actor_loop, server().win_sock, &server());
        for (void* item = zhashx_first(server().clients.unguarded()); item;
             item = zhashx_next(server().clients.unguarded()))
            if (item != &bridge())
                m_bridge = static_cast<WIN_CLIENT_t*>(item);
        return connection;
    }

    static size_t empty(zsock_t* peer)
    {
        size_t messages = 0;
        zmq_msg_t part;
        zmq_msg_init(&part);
        while (zmq_msg_recv(&part, zsock_resolve(peer), ZMQ_DONTWAIT) >= 0)
            messages += !zmq_msg_more(&part);
        zmq_msg_close(&part);
        return messages;
    }

    WIN_CLIENT_t* m_bridge = nullptr; // the server's table owns it
    zsock_t* m_handler;
    zsock_t* m_proxy;
    int m_connection;
    WIN_CLIENT_t* m_replies; // decodes what the bridge receives
};

// --- frames; `seq` is set for each run

bytes_t be16(unsigned value)
{
    return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

bytes_t le16(unsigned value)
{
    return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
}

bytes_t header(unsigned type, size_t total_len)
{
    return le16(type) + bytes_t{0} + le16(static_cast<unsigned>(total_len));
}

bytes_t heartbeat_body(unsigned type)
{
    return le16(type) + hex("00 0A 14 52 07") + sender_mac + hex("B1 B2 B3 B4 B5 B6 B7 B8  04 03 02 01") +
           hex("D2 04 00 00  FE FF FF FF  34 12 FD FF");
}

bytes_t heartbeat(unsigned type)
{
    return heartbeat_body(type) + bridge_mac + sender_ip;
}

bytes_t with_payload(unsigned type, const bytes_t& payload)
{
    return header(type, payload.size()) + payload;
}

bytes_t generic(unsigned code, size_t body_size)
{
    return with_payload(MSG_GENERIC_SERVER_REQ, be16(code) + ramp(body_size));
}

bytes_t direct(const bytes_t& message)
{
    return message + sender_ip;
}

bytes_t forwarded(const bytes_t& inner)
{
    return header(MSG_NWK_DATA_15_4_IND, inner.size()) + inner + sender_mac + sender_ip;
}

const bytes_t page_request =
    with_payload(MSG_GENERIC_SERVER_REQ, hex("00 10 00 00 00 01 00 00 00 02 00 80 00 00"));

// --- the benchmark: one frame again and again, its sequence number changing

struct frame_case {
    const char* name;
    bytes_t frame;
    size_t seq_at; // where the registry reads the sequence number
    size_t sent;   // messages that one frame causes
};

void dispatch(benchmark::State& state, const frame_case& c)
{
    dispatch_world world;
    world.introduce(1);
    const bytes_t page = ramp(128);
    ota_set_firmware_page(rtls_gateway_get_ota(world.handle()), 1, 2, 128, 0, page.data());
    bytes_t frame = c.frame;
    while (state.KeepRunningBatch(batch)) {
        for (size_t i = 0; i < batch; i++) {
            ++frame[c.seq_at];
            benchmark::DoNotOptimize(world.receive(frame));
        }
        state.PauseTiming();
        if (!world.take(c.sent * batch))
            return state.SkipWithError("not every frame went its way");
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations());
}

// A frame from a different one of `range(0)` known nodes each time; the node's number is at `numbers_at`.
void dispatch_from_many(benchmark::State& state, const bytes_t& original,
                        const std::vector<size_t>& numbers_at, size_t seq_at)
{
    dispatch_world world;
    const auto count = static_cast<uint32_t>(state.range(0));
    world.introduce(count);
    bytes_t frame = original;
    uint32_t number = 0;
    unsigned round = 0;
    while (state.KeepRunningBatch(batch)) {
        for (size_t i = 0; i < batch; i++) {
            number = (number + 7919) % count; // a prime: all of them, in no order of theirs
            round += number == 0;
            for (const size_t at : numbers_at)
                store_be32(frame, at, number);
            frame[seq_at] = static_cast<uint8_t>(round % 255 + 1); // never the zero of a new node
            benchmark::DoNotOptimize(world.receive(frame));
        }
        state.PauseTiming();
        if (!world.take(batch))
            return state.SkipWithError("not every frame went its way");
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations());
}

} // namespace

} // namespace rtls

using namespace rtls;

int main(int argc, char** argv)
{
    constexpr size_t inner_seq = nwk_data_ind::inner + msgHeader_t::seqNo;
    const frame_case cases[] = {
        {"heartbeat", heartbeat(MSG_HEARTBEAT_IND), 2, 1},
        {"heartbeat, ack", heartbeat(MSG_HEARTBEAT_IND | msg_flag_ack_requested), 2, 2},
        {"heartbeat, forwarded", forwarded(heartbeat_body(MSG_HEARTBEAT_IND)), inner_seq, 1},
        {"node announcement", heartbeat(MSG_NODE_ANNOUNCE_IND), 2, 1},
        {"root announcement", le16(MSG_ANNOUNCE_ROOT_IND) + bytes_t{0} + bridge_mac + hex("34 12 F1"), 2, 1},
        {"PANID request, timer active", le16(MSG_PANID_REQ) + bytes_t{0} + bridge_mac, 2, 0},
        {"ping", hex("00 00 00 01 02 03 04 05 06 07"), 2, 1},
        {"sensor, direct", direct(with_payload(MSG_SENSOR_IND_NEW, ramp(40))), 2, 1},
        {"sensor, forwarded", forwarded(with_payload(MSG_SENSOR_IND_NEW, ramp(40))), inner_seq, 1},
        {"generic, direct", direct(generic(GENERIC_REQ_OtaApply, 40)), 2, 1},
        {"generic, forwarded", forwarded(generic(GENERIC_REQ_OtaApply, 40)), inner_seq, 1},
        {"generic, largest", forwarded(generic(GENERIC_REQ_OtaApply, 400)), inner_seq, 1},
        {"UL-TDOA", forwarded(generic(GENERIC_REQ_UltdoaData, 37)), inner_seq, 1},
        {"route request, 16 requesters", forwarded(generic(GENERIC_REQ_RouteRequest, 136)), inner_seq, 1},
        {"range report, 16 entries", forwarded(generic(GENERIC_REQ_RangeRpt, 128)), inner_seq, 1},
        {"OTA page, 128 bytes", forwarded(page_request), inner_seq, 1},
        {"type without action", hex("05 01 00"), 2, 0},
    };
    for (const frame_case& c : cases)
        benchmark::RegisterBenchmark(c.name, dispatch, c);

    const std::vector<size_t> heartbeat_numbers{gwMsgHeartbeat_t::long_addr + 4,
                                                gwMsgHeartbeat_t::ipaddr + 12};
    benchmark::RegisterBenchmark("heartbeat, of many nodes", dispatch_from_many, heartbeat(MSG_HEARTBEAT_IND),
                                 heartbeat_numbers, 2)
        ->Arg(1)
        ->Arg(1'000)
        ->Arg(100'000);
    const bytes_t sensor = direct(with_payload(MSG_SENSOR_IND_NEW, ramp(40)));
    benchmark::RegisterBenchmark("sensor, direct, of many nodes", dispatch_from_many, sensor,
                                 std::vector{sensor.size() - 4}, 2)
        ->Arg(1)
        ->Arg(1'000)
        ->Arg(100'000);

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
