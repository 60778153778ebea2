// instruction_counts - a fixed number of operations of each kind, for bench/instructions to count the instructions
// of: each kind of message up, the reading of the WIN port, each kind of command down, a debug record.
//
// Counts are those of this thread within counted_part. Each kind is counted several times: what another thread does
// meanwhile (the library asks for its attention, or need not be woken) only ever adds to one of them.
// Prints a line for each count, in order: the number of operations, and their name.
//   instruction_counts [KIND]
#include "base/common.h"
#include "base/czmq_ptr.h"
#include "base/logger.h"
#include "base/message_part.h"
#include "command_world.h"
#include "dispatch_world.h"
#include "support/temp_file.h"
#include "wire/slip.h"

#include <sys/ioctl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

using namespace rtls;

namespace {

constexpr int rounds = 5;

const char* only_kind = nullptr; // null: all of them

bool is_wanted(const std::string& kind)
{
    return !only_kind || kind == only_kind;
}

struct counted_kind {
    std::string name;
    size_t operations;
    std::function<void()> prepare;
    std::function<bool()> work; // what is counted
    std::function<bool()> finish;
};

void require(bool condition, const std::string& what)
{
    if (condition)
        return;
    std::fprintf(stderr, "instruction_counts: %s\n", what.c_str());
    std::exit(1);
}

} // namespace

// Takes the place of libc's: the time of day stands still. A turn of commands has a millisecond, in which the counted
// program gets nowhere near as far as the daemon does: turns would be short, and as long as the machine is fast.
extern "C" int gettimeofday(timeval* time, void* /*zone*/) noexcept
{
    *time = {.tv_sec = 1'000'000'000, .tv_usec = 0};
    return 0;
}

// Whom callgrind is told to count. Not a tail call: it is to end with the work.
extern "C" [[gnu::noinline]] bool counted_part(const std::function<bool()>& work);

extern "C" bool counted_part(const std::function<bool()>& work)
{
    const bool is_done = work();
    asm volatile("" ::: "memory");
    return is_done;
}

namespace {

void count(const counted_kind& kind)
{
    for (int round = 0; round < rounds; ++round) {
        kind.prepare();
        require(counted_part(kind.work), kind.name + ": not done");
        std::printf("%zu %s\n", kind.operations, kind.name.c_str());
        require(kind.finish(), kind.name + ": not everything went its way");
    }
}

// From the decoder's hand-over to all that the message causes.
void count_message(const frame_case& c)
{
    const std::string kind = std::string{"up: "} + c.name;
    if (!is_wanted(kind))
        return;
    dispatch_world world;
    world.introduce(1);
    world.keep_page();
    bytes_t frame = c.frame;
    const auto work = [&] {
        for (size_t i = 0; i < dispatch_world::batch; ++i) {
            ++frame[c.seq_at];
            world.receive(frame);
        }
        return true;
    };
    count({kind, dispatch_world::batch, [] {}, work,
           [&] { return world.take(c.sent * dispatch_world::batch); }});
}

// Takes as many of the tap's messages as that.
bool take_from_tap(zsock_t* subscriber, size_t messages)
{
    message_part part;
    while (messages > 0) {
        if (!part.receive(zsock_resolve(subscriber), true))
            return false;
        messages -= zsock_rcvmore(subscriber) ? 0 : 1;
    }
    return true;
}

// Heartbeats of a gateway with a tap, to which somebody has subscribed or nobody.
void count_tapped(const char* kind, const char* topic)
{
    if (!is_wanted(kind))
        return;
    const temp_file place{"tap"};
    dispatch_world world;
    world.introduce(1);
    const zconfig_ptr config{zconfig_new("root", nullptr)};
    zconfig_put(config.get(), "tap/address", (std::string{"ipc://"} + place.path()).c_str());
    tap_socket& tap = world.server().tap;
    require(tap.read(config.get()) && tap.open({}), "tap");
    const zsock_ptr subscriber{zsock_new_sub((std::string{">ipc://"} + place.path()).c_str(), topic)};
    zsock_set_rcvtimeo(subscriber.get(), 60'000);
    while (topic && !tap.takes_any())
        tap.look();
    world.server().event_time = get_current_time(); // as while the bytes of a read are handled
    tap.begin_read(1);
    frame_case heartbeat = frame_cases().front();
    const auto work = [&] {
        for (size_t i = 0; i < dispatch_world::batch; ++i) {
            ++heartbeat.frame[heartbeat.seq_at];
            world.receive(heartbeat.frame);
        }
        return true;
    };
    count({kind, dispatch_world::batch, [] {}, work,
           [&] {
               return world.take(dispatch_world::batch) &&
                      (!topic || take_from_tap(subscriber.get(), dispatch_world::batch));
           }});
    tap.close();
}

void write_to_port(dispatch_world& world, const bytes_t& bytes)
{
    for (size_t bridge = 0; bridge < world.bridges(); ++bridge)
        require(write(world.connection(bridge), bytes.data(), bytes.size()) ==
                    static_cast<ssize_t>(bytes.size()),
                "write");
    const auto is_read = [&](size_t bridge) {
        int left = 0;
        return ioctl(world.record(bridge).fd, FIONREAD, &left) == 0 && left == 0;
    };
    for (size_t bridge = 0; bridge < world.bridges(); ++bridge)
        while (!is_read(bridge))
            std::this_thread::yield();
    // The library has read it, and is about to hand it over.
    std::this_thread::sleep_for(std::chrono::milliseconds{5});
}

// From the bridges' connections to the servers.
void count_port(size_t messages_a_write)
{
    const std::string kind = "port: sensor, direct, " + std::to_string(messages_a_write) + " a write";
    if (!is_wanted(kind))
        return;
    constexpr size_t bridges = 16;
    dispatch_world world{bridges};
    world.introduce(1);
    const bytes_t message = direct_sensor_report();
    bytes_t frame(slip_encoded_limit(message.size()));
    frame.resize(slip_encode(message, frame.data()));
    bytes_t bytes;
    for (size_t i = 0; i < messages_a_write; ++i)
        bytes = bytes + frame;
    const size_t messages = bridges * messages_a_write;
    const counter& frames = world.server().counts.frames_in;
    count({kind, messages, [&] { write_to_port(world, bytes); },
           [&] { return world.run_until(frames, frames.value() + messages); },
           [&] { return world.take(messages); }});
}

// From the proxy's socket to those of the bridges.
void count_command(const command_case& command)
{
    const std::string kind = std::string{"down: "} + command.name;
    if (!is_wanted(kind))
        return;
    command_world world{16};
    count({kind, command_world::batch, [&] { world.publish(command); }, [&] { return world.carry_out(); },
           [&] { return world.take(); }});
}

// The line of a heartbeat, the one that there is most of.
void print_record(zsock_t* stream, size_t number)
{
    const tav_timestamp_t time{1'000'000'000, static_cast<uint32_t>(number % 1000)};
    dbg_print_ts(stream, time, DBG_PARSING, "SLIP",
                 "%s %04X src:%02X%02X seq:%02X rf:%d rngf:%d role:%02X sl:%02x par:%02X%02X sw:%08x "
                 "xyz:%d;%d;%d zoff:%d",
                 "MSG_HEARTBEAT_IND", 0x0104, 0x12, 0x34, static_cast<unsigned>(number & 0xFF), 20, 5, 0x82,
                 0x01, 0xAB, 0xCD, 0x04030201, 1234, -2, 4660, -3);
}

// Takes as many lines as that from whoever reads them; others' do not count.
bool take_records(zsock_t* reader, size_t records)
{
    while (records > 0) {
        const zframe_ptr record{zframe_recv(reader)};
        if (!record)
            return false;
        const std::string text{reinterpret_cast<const char*>(zframe_data(record.get())),
                               zframe_size(record.get())};
        records -= text.find("MSG_HEARTBEAT_IND") != std::string::npos ? 1 : 0;
    }
    return true;
}

void count_records(const char* kind, zsock_t* stream, zsock_t* reader)
{
    constexpr size_t batch = 250; // below the depth of every queue
    zsock_set_rcvtimeo(reader, 60'000);
    const auto work = [&] {
        for (size_t number = 0; number < batch; ++number)
            print_record(stream, number);
        return true;
    };
    count({kind, batch, [] {}, work, [&] { return take_records(reader, batch); }});
}

// From a debug line's arguments to the operators' stream.
void count_stream_record()
{
    const char kind[] = "record: heartbeat, for the stream";
    if (!is_wanted(kind))
        return;
    const std::string endpoint = unused_endpoint();
    const zsock_ptr reader{zsock_new_pull(("@" + endpoint).c_str())};
    const zsock_ptr stream{zsock_new_push((">" + endpoint).c_str())};
    debug_mask = 1U << DBG_PARSING;
    count_records(kind, stream.get(), reader.get());
    debug_mask = 0;
}

// The same to the debug broker, which gets all records from then on.
void count_broker_record()
{
    const char kind[] = "record: heartbeat, for the broker";
    if (!is_wanted(kind))
        return;
    const zsock_ptr reader{zsock_new(ZMQ_PULL)};
    const int port = zsock_bind(reader.get(), "tcp://127.0.0.1:*");
    logger_connect(g_logger_ctx, ("tcp://127.0.0.1:" + std::to_string(port)).c_str());
    count_records(kind, nullptr, reader.get());
}

} // namespace

int main(int argc, char** argv)
{
    only_kind = argc > 1 ? argv[1] : nullptr;
    require(logger_init("instruction_counts"), "no log"); // which is asked for each line whether it takes it
    std::ranges::for_each(frame_cases(), count_message);
    count_tapped("tap: heartbeat, nobody subscribed", nullptr);
    count_tapped("tap: heartbeat, subscribed", "report/");
    for (const size_t messages_a_write : {size_t{1}, size_t{32}})
        count_port(messages_a_write);
    std::ranges::for_each(command_cases(), count_command);
    count_stream_record();
    count_broker_record();
    logger_cleanup();
    return 0;
}
