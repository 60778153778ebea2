// What a debug line costs, with and without listeners; and the helpers that texts and checks use.
#include "base/common.h"
#include "base/czmq_ptr.h"
#include "base/hex.h"
#include "base/logger.h"
#include "firmware/crc32.h"

#include <benchmark/benchmark.h>
#include <zmq.hpp>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace rtls {

namespace {

using zsock_ptr = std::unique_ptr<zsock_t, destroyed_by<zsock_destroy>>;

// The daemon's loggers, for as long as a benchmark runs.
class loggers {
public:
    loggers() { logger_init("rtls-gateway"); }
    ~loggers() { logger_cleanup(); }
    loggers(const loggers&) = delete;
    loggers& operator=(const loggers&) = delete;
};

// A broker that takes every record and drops it.
class broker {
public:
    broker() : m_socket(m_context, zmq::socket_type::pull)
    {
        m_socket.set(zmq::sockopt::rcvtimeo, 10);
        m_socket.bind("tcp://127.0.0.1:*");
        m_endpoint = m_socket.get(zmq::sockopt::last_endpoint);
        m_thread = std::thread([this] {
            zmq::message_t record;
            while (!m_stop)
                if (m_socket.recv(record))
                    ++m_received;
        });
    }
    ~broker()
    {
        m_stop = true;
        m_thread.join();
    }
    broker(const broker&) = delete;
    broker& operator=(const broker&) = delete;

    const std::string& endpoint() const { return m_endpoint; }
    void wait_for_a_record() const
    {
        while (m_received == 0)
            std::this_thread::yield();
    }

private:
    zmq::context_t m_context;
    zmq::socket_t m_socket;
    std::string m_endpoint;
    std::atomic<bool> m_stop{false};
    std::atomic<size_t> m_received{0};
    std::thread m_thread;
};

void print_a_line(zsock_t* dbg_sock)
{
    dbg_print(dbg_sock, DBG_PARSING, "SLIP", "rcvd msg type: %04X, seq: %d", 0x0104, 7);
}

void debug_print_unheard(benchmark::State& state)
{
    const loggers all;
    debug_mask = 0;
    const zsock_ptr push{zsock_new(ZMQ_PUSH)};
    while (state.KeepRunning())
        print_a_line(push.get());
}

void debug_print_to_a_broker(benchmark::State& state)
{
    broker reading;
    const loggers all;
    logger_connect(g_logger_ctx, reading.endpoint().c_str());
    reading.wait_for_a_record();
    debug_mask = 0;
    const zsock_ptr push{zsock_new(ZMQ_PUSH)};
    while (state.KeepRunning())
        print_a_line(push.get());
}

// The stream as the terminal server reads it. The writer learns late that there is room again, so
// batches stay far below the depth of the stream.
void debug_print_to_the_stream(benchmark::State& state)
{
    constexpr int batch = 200;
    const loggers all;
    static int run = 0; // closed sockets hold their endpoint for a while
    const std::string endpoint = "inproc://debug_print_bench_" + std::to_string(++run);
    const zsock_ptr pull{zsock_new_pull(("@" + endpoint).c_str())};
    const zsock_ptr push{zsock_new_push((">" + endpoint).c_str())};
    zsock_set_rcvtimeo(pull.get(), 0);
    debug_mask = 1U << DBG_PARSING;
    int64_t received = 0;
    while (state.KeepRunning()) {
        for (int i = 0; i < batch; ++i)
            print_a_line(push.get());
        state.PauseTiming();
        while (zframe_ptr{zframe_recv(pull.get())})
            ++received;
        state.ResumeTiming();
    }
    debug_mask = 0;
    state.SetItemsProcessed(received);
}

std::vector<uint8_t> ramp(size_t size)
{
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8_t>(i * 7);
    return bytes;
}

void crc32(benchmark::State& state)
{
    const auto bytes = ramp(static_cast<size_t>(state.range(0)));
    while (state.KeepRunning())
        benchmark::DoNotOptimize(crc32_byte(bytes.data(), static_cast<uint32_t>(bytes.size())));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void hex_of(benchmark::State& state)
{
    const auto bytes = ramp(static_cast<size_t>(state.range(0)));
    while (state.KeepRunning())
        benchmark::DoNotOptimize(to_hex(bytes));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void hex_decoded(benchmark::State& state)
{
    const std::string text = to_hex(ramp(static_cast<size_t>(state.range(0))));
    std::vector<uint8_t> bytes(static_cast<size_t>(state.range(0)) + 1);
    while (state.KeepRunning())
        benchmark::DoNotOptimize(string_to_uint8_arr(text.c_str(), bytes.data(), state.range(0)));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

} // namespace

BENCHMARK(debug_print_unheard);
BENCHMARK(debug_print_to_a_broker);
BENCHMARK(debug_print_to_the_stream)->Unit(benchmark::kMicrosecond);
BENCHMARK(crc32)->Arg(64)->Arg(1 << 20);
BENCHMARK(hex_of)->Arg(68)->Arg(1100);
BENCHMARK(hex_decoded)->Arg(34)->Arg(1100);

} // namespace rtls
