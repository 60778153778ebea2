// How long reports take to be handed over: what is counted, and that counting looks at no clock for itself.
#include "link/win_server_private.h"
#include "support/hex_bytes.h"
#include "support/sock.h"
#include "support/wait.h"
#include "support/win_link.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <czmq.h>

#include <cstdint>
#include <string>

namespace rtls {

namespace {

// The clock of the test's own thread.
thread_local int clock_looks = 0;
thread_local int64_t clock_ahead_us = 0;

} // namespace

} // namespace rtls

// Takes the place of the library's.
extern "C" int64_t zclock_usecs(void)
{
    static const auto next = reinterpret_cast<int64_t (*)()>(dlsym(RTLD_NEXT, "zclock_usecs"));
    ++rtls::clock_looks;
    return next() + rtls::clock_ahead_us;
}

namespace rtls {

namespace {

// A link whose frames become reports, each of which takes `report_us` until it is handed over.
class reporting_link : public win_link {
public:
    reporting_link()
    {
        const std::string endpoint = new_endpoint();
        zsock_bind(m_handler.get(), "%s", endpoint.c_str());
        server().msg_handler_sock.reset(zsock_new(ZMQ_PUSH));
        zsock_connect(server().msg_handler_sock, "%s", endpoint.c_str());
        server().process_frame = [](WIN_SERVER_t* of, WIN_CLIENT_t*) {
            clock_ahead_us += report_us;
            message_part report{bytes_view{}};
            of->to_handler.send(zsock_resolve(of->msg_handler_sock), report, nullptr, false);
            of->intake_is_paused = pauses;
            return true;
        };
    }
    ~reporting_link()
    {
        server().intake_is_paused = false;
        server().msg_handler_sock.reset();
    }
    reporting_link(const reporting_link&) = delete;
    reporting_link& operator=(const reporting_link&) = delete;

    // How often one call of the reader, which brings `frames` in one event, looks at the clock.
    int looks_for(tcp_peer& peer, const std::string& frames) const
    {
        const uint64_t before = server().counts.bytes_in.value();
        const bytes_t bytes = hex(frames);
        peer.send(bytes);
        int looks = 0;
        EXPECT_TRUE(pump_until([&] {
            looks = clock_looks;
            clock_looks = 0;
            return server().counts.bytes_in.value() != before;
        }));
        EXPECT_EQ(server().counts.bytes_in.value(), before + bytes.size());
        return looks;
    }
    uint64_t noted(size_t range) const { return server().counts.hand_over.in_range(range); }

    static inline int64_t report_us = 0;
    static inline bool pauses = false;

private:
    zsock_ptr m_handler{zsock_new(ZMQ_PULL)};
};

constexpr char report[] = "F5 01 F7";
constexpr char no_report[] = "01";

} // namespace

// The call's begin, and the look when the port is drained.
constexpr int looks_of_a_call = 2;

TEST(hand_over_times, a_report_costs_no_look_at_the_clock)
{
    const reporting_link link;
    auto bridge = link.connect();
    EXPECT_EQ(link.looks_for(bridge.peer, no_report), looks_of_a_call);
    EXPECT_EQ(link.looks_for(bridge.peer, report), looks_of_a_call);
    EXPECT_EQ(link.server().to_handler.counts().at_once.value(), 1U);
}

// The port is not drained then.
TEST(hand_over_times, the_end_of_a_turn_costs_one_look_only_for_reports)
{
    const reporting_link link;
    auto bridge = link.connect();
    const auto looks_in_a_pause = [&](const char* bytes) {
        link.server().intake_is_paused = true;
        const int looks = link.looks_for(bridge.peer, bytes);
        link.server().intake_is_paused = false;
        return looks;
    };
    reporting_link::pauses = true;
    EXPECT_EQ(looks_in_a_pause(no_report), 1);
    EXPECT_EQ(looks_in_a_pause("F5 01 F7 F5 02 F7"), 2);
    reporting_link::pauses = false;
    EXPECT_EQ(link.server().counts.hand_over.in_range(0) + link.server().counts.hand_over.in_range(1) +
                  link.server().counts.hand_over.in_range(2),
              2U);
}

TEST(hand_over_times, are_from_the_look_at_the_port_to_the_hand_over)
{
    const reporting_link link;
    auto bridge = link.connect();
    reporting_link::report_us = 2'000'000;
    link.looks_for(bridge.peer, "F5 01 F7");
    reporting_link::report_us = 30'000'000;
    link.looks_for(bridge.peer, "F5 01 F7 F5 02 F7"); // two, the second after a minute
    reporting_link::report_us = 0;
    EXPECT_EQ(link.noted(time_counts::ranges - 2), 1U); // up to 5 s
    EXPECT_EQ(link.noted(time_counts::ranges - 1), 2U);
    const auto sum_s = static_cast<double>(link.server().counts.hand_over.sum_us()) / 1e6;
    EXPECT_GE(sum_s, 2 + 60 + 60);
    EXPECT_LT(sum_s, 125);
}

} // namespace rtls
