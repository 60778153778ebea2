// Reports are handed on after the registry's lock has been let go: an operator's listing, which takes the
// lock, must not wait for a server's socket, nor a report for a listing.
#include "registry/nodes_container.h"
#include "support/bridge_message_fixture.h"
#include "support/wait.h"

#include <dlfcn.h>

#include <atomic>
#include <future>
#include <list>

namespace rtls {

namespace {

// Set while a frame is being processed.
struct watch {
    std::atomic<NODES_CONTAINER_t*> nodes = nullptr;
    std::atomic<unsigned> sends = 0;
    std::atomic<unsigned> under_the_lock = 0;
    std::list<std::future<void>> waiting; // for the lock that a sender holds
};

watch& sending()
{
    static watch all;
    return all;
}

// Whether somebody else could take the lock now. Who cannot has it some time later.
bool is_free(NODES_CONTAINER_t* nodes)
{
    auto taken = std::async(std::launch::async, [nodes] { const nodes_guard guard{*nodes}; });
    if (taken.wait_for(patience) == std::future_status::ready)
        return true;
    sending().waiting.push_back(std::move(taken));
    return false;
}

} // namespace

} // namespace rtls

static void note_send()
{
    using namespace rtls;
    if (NODES_CONTAINER_t* nodes = sending().nodes) {
        ++sending().sends;
        if (!is_free(nodes))
            ++sending().under_the_lock;
    }
}

extern "C" int zmq_send(void* socket, const void* bytes, size_t size, int flags)
{
    note_send();
    return reinterpret_cast<decltype(zmq_send)*>(dlsym(RTLD_NEXT, "zmq_send"))(socket, bytes, size, flags);
}

extern "C" int zmq_msg_send(zmq_msg_t* message, void* socket, int flags)
{
    note_send();
    return reinterpret_cast<decltype(zmq_msg_send)*>(dlsym(RTLD_NEXT, "zmq_msg_send"))(message, socket,
                                                                                       flags);
}

namespace rtls {

namespace {

class hand_over : public bridge_message_fixture {
protected:
    unsigned sends_of(const bytes_t& frame)
    {
        sending().sends = 0;
        sending().nodes = nodes;
        EXPECT_TRUE(receive(frame));
        sending().nodes = nullptr;
        return sending().sends;
    }
    ~hand_over() override { sending().waiting.clear(); } // waits for them
};

} // namespace

TEST_F(hand_over, holds_no_lock_of_the_registry)
{
    introduce(sender_mac, sender_ip);
    const struct {
        const char* given;
        bytes_t frame;
    } cases[] = {
        {"root announcement", announce_root(1)},
        {"heartbeat", heartbeat({.seq = 2})},
        {"forwarded heartbeat", envelope(heartbeat_body({.seq = 3}))},
        {"sensor report", payload_message(MSG_SENSOR_IND_NEW, 4, hex("AA BB")) + hex(sender_ip)},
        {"generic request", payload_message(MSG_GENERIC_SERVER_REQ, 5, hex("00 01 02")) + hex(sender_ip)},
        {"route request", generic_req(6, 10, ramp(16)) + hex(sender_ip)},
        {"UL-TDOA data", generic_req(7, 40, ramp(40)) + hex(sender_ip)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        EXPECT_GE(sends_of(c.frame), 1U);
        EXPECT_EQ(sending().under_the_lock.exchange(0), 0U);
    }
}

} // namespace rtls
