// terminal_server_fixture - a gateway whose terminal server runs, for operators who connect to it.
//
// Threads    The test's own, beside the actor's.
#pragma once

#include "support/log_capture.h"
#include "support/operator_peer.h"
#include "support/test_gateway.h"
#include "support/texts.h"

#include <gtest/gtest.h>

#include <string>

namespace rtls {

// What an answer begins or ends with.
inline constexpr char info_start[] = "GW Version     : 8.6.3\n";
inline constexpr char info_end[] = "\n\n";
inline constexpr char pn_end[] = "##\n";
inline constexpr char pcl_end[] = "\n##\n";
inline constexpr char empty_pn[] =
    "####### Connected Nodes\n####### Floating nodes\n####### Expired nodes\n##\n";

class terminal_server_fixture : public testing::Test {
protected:
    terminal_server_fixture();
    ~terminal_server_fixture() override;

    uint16_t port() const { return m_gateway.terminal_port(); }
    void* server() const;

    // That all works, and that nothing is on its way to this operator: answers come alone.
    static void expect_served(operator_peer& peer);
    // What pcl says of the terminals, line by line; nothing when it does not answer.
    static texts_t terminals_seen_by(operator_peer& peer);

    // A line of the debug stream, which is off until it is enabled.
    void stream(const std::string& text);
    static void enable_stream();

    log_capture m_log;
    test_gateway m_gateway;
    zsock_ptr m_dbg{zsock_new_push(">inproc://dbg_dump")};
};

} // namespace rtls
