// One frame from a bridge, from the decoder's hand-over to what it causes: registry, ack, reports.
//
// The upstream peers are in this process and emptied between batches, outside of the measurement, so that
// no queue is ever full. Debug sections are off and there is no broker, as in the field.
#include "messaging.h"
#include "nodes_container.h"
#include "ota.h"
#include "rtls-gateway.h"
#include "support/hex_bytes.h"
#include "support/idle_gateway.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <numeric>
#include <string>

namespace {

// Below the depth of every queue.
constexpr size_t batch = 500;

const bytes_t sender_ip = hex("FE 80 00 00 00 00 00 00 00 A2 A3 A4 00 00 00 00"); // of node 0
const bytes_t sender_mac = hex("E4 A2 A3 A4 00 00 00 00");
const bytes_t bridge_mac = hex("AB CD EF 01 2A BC DE 3F");

// A gateway between a bridge that swallows everything and two servers that do the same.
class dispatch_world : public idle_gateway {
public:
    dispatch_world()
        : m_handler(zsock_new_pull("@inproc://dispatch_bench_handler")),
          m_proxy(zsock_new_pull("@inproc://dispatch_bench_proxy"))
    {
        zsock_connect(server().msg_handler_sock, "inproc://dispatch_bench_handler");
        zsock_connect(server().proxy_input_sock, "inproc://dispatch_bench_proxy");
        bridge().pending_data = static_cast<uint8_t*>(malloc(pending_data_step));
        bridge().pending_buffsize = pending_data_step;
        server().rpl_timer_is_active = true; // PANID requests only leave a note
    }

    ~dispatch_world()
    {
        zsock_destroy(&m_handler);
        zsock_destroy(&m_proxy);
    }

    dispatch_world(const dispatch_world&) = delete;
    dispatch_world& operator=(const dispatch_world&) = delete;

    // Known nodes, each by MAC and by address; their number is in the last four bytes of both.
    void introduce(size_t count)
    {
        const nodes_guard guard{nodes()};
        bytes_t mac = sender_mac;
        bytes_t ip = sender_ip;
        for (uint32_t i = 0; i < count; i++) {
            store_be32(mac, 4, i);
            store_be32(ip, 12, i);
            NODE_t* node = nodes_container_find_or_create_by_mac(nodes(), mac.data(), nullptr, 0);
            nodes_container_set_address(nodes(), node, ip.data(), false);
            node_update_win_client_ID(node, bridge().id);
        }
    }

    bool receive(const bytes_t& frame)
    {
        memcpy(bridge().pending_data, frame.data(), frame.size());
        bridge().pending_data_size = frame.size();
        return process_data_from_win_client(&server(), &bridge());
    }

    // What the servers and the bridge have been sent.
    size_t empty_queues()
    {
        const size_t replies = zlist_size(bridge().unsent_messages);
        drop_unsent(bridge());
        return replies + empty(m_handler) + empty(m_proxy);
    }

private:
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

    zsock_t* m_handler;
    zsock_t* m_proxy;
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

struct case_t {
    const char* name;
    bytes_t frame;
    size_t seq_at; // where the registry reads the sequence number
    size_t sent;   // messages that one frame causes
};

void dispatch(benchmark::State& state, const case_t& c)
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
        if (world.empty_queues() != c.sent * batch)
            state.SkipWithError("not every frame went its way");
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations());
}

// A frame from a different one of `range(0)` known nodes each time; the node's number is at `mac_at`.
void dispatch_from_many(benchmark::State& state, const bytes_t& original, size_t mac_at, size_t seq_at)
{
    dispatch_world world;
    const auto count = static_cast<uint32_t>(state.range(0));
    world.introduce(count);
    bytes_t frame = original;
    uint32_t number = 0;
    while (state.KeepRunningBatch(batch)) {
        for (size_t i = 0; i < batch; i++) {
            number = (number + 7919) % count; // a prime: all of them, in no order of theirs
            store_be32(frame, mac_at, number);
            ++frame[seq_at];
            benchmark::DoNotOptimize(world.receive(frame));
        }
        state.PauseTiming();
        benchmark::DoNotOptimize(world.empty_queues());
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations());
}

} // namespace

int main(int argc, char** argv)
{
    constexpr size_t inner_seq = nwk_data_ind::inner + msgHeader_t::seqNo;
    const case_t cases[] = {
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
        {"route request, 16 requesters", forwarded(generic(GENERIC_REQ_RouteRequest, 8 + 16 * 8)), inner_seq,
         1},
        {"range report, 16 entries", forwarded(generic(GENERIC_REQ_RangeRpt, 16 * 8)), inner_seq, 1},
        {"OTA page, 128 bytes", forwarded(page_request), inner_seq, 1},
        {"type without action", hex("05 01 00"), 2, 0},
    };
    for (const case_t& c : cases)
        benchmark::RegisterBenchmark(c.name, dispatch, c);

    constexpr size_t number_at = 4; // in the MAC
    benchmark::RegisterBenchmark("heartbeat, of many nodes", dispatch_from_many, heartbeat(MSG_HEARTBEAT_IND),
                                 gwMsgHeartbeat_t::long_addr + number_at, 2)
        ->Arg(1)
        ->Arg(1'000)
        ->Arg(100'000);
    const bytes_t sensor = direct(with_payload(MSG_SENSOR_IND_NEW, ramp(40)));
    benchmark::RegisterBenchmark("sensor, direct, of many nodes", dispatch_from_many, sensor,
                                 sensor.size() - number_at, 2)
        ->Arg(1)
        ->Arg(1'000)
        ->Arg(100'000);

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
