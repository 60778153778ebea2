// terminal_command_fixture - commands of one operator, against a gateway that is not started, with a pair of
// sockets in place of the operator: what the commands write is seen frame by frame.
//
// Threads    The test's own; no actor runs.
#pragma once

#include "support/log_capture.h"
#include "support/sock.h"
#include "support/test_gateway.h"
#include "support/texts.h"
#include "terminal/client.h"

#include <gtest/gtest.h>

#include <string>

namespace rtls {

class terminal_command_fixture : public testing::Test {
protected:
    terminal_command_fixture();
    ~terminal_command_fixture() override;

    TERMINAL_CLIENT_t* add_operator(const char* id, const char* ip, uint16_t port);
    void run(std::string command);

    // The texts that a command wrote. Each must come behind the operator's identity.
    texts_t answers_to(const std::string& command);
    // The same, of the command that was run.
    texts_t finish_and_take();
    std::string answer_to(const std::string& command);
    // The rows of a listing, however they were put into frames.
    texts_t rows_of(const std::string& command);

    // From now on no frame is accepted any more, as from an operator who does not read.
    void stall();

    texts_t errors() { return m_log.messages("main"); }

    static constexpr char operator_id[] = "operator";

    log_capture m_log;
    test_gateway m_gateway;
    const std::string m_endpoint = new_endpoint();
    zsock_ptr m_operator{zsock_new_pull(("@" + m_endpoint).c_str())};
    zsock_ptr m_terminal{zsock_new_push((">" + m_endpoint).c_str())};
    zsock_ptr m_dbg{zsock_new_push(">inproc://dbg_dump")};
    TERMINAL_CLIENT_t* m_client = nullptr;

private:
    texts_t answers();
};

} // namespace rtls
