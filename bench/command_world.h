// command_world - a proxy that publishes commands, a gateway, and the bridges that they go to: for the benchmarks
// of what goes down.
//
// The proxy is in this process; what it publishes is read by the gateway's loop, and the bridges are on real
// connections. Debug sections are off and there is no broker, as in the field.
// Threads    The caller's own, which works as the WIN server's.
// Failures   What cannot be connected ends the program.
#pragma once

#include "bridged_gateway.h"

#include <cstddef>
#include <string>
#include <vector>

namespace rtls {

// A command as the proxy writes it, but for the digits of the node's MAC at its end.
struct command_case {
    const char* name;
    std::string digits;
    bool is_forwarded; // the node is behind others: the command is wrapped
};

std::vector<command_case> command_cases();

class command_world : public bridged_gateway {
public:
    // Commands of a batch, each to a node of its own: none is a repeat.
    static constexpr size_t batch = 250;

    explicit command_world(size_t bridges);
    ~command_world();
    command_world(const command_world&) = delete;
    command_world& operator=(const command_world&) = delete;

    // Publishes a batch, dealt out among the bridges; the gateway has it at hand then.
    void publish(const command_case& command);
    // Has the gateway carry the batch out. False when it does not.
    bool carry_out();
    // Takes the batch from the bridges; false when it is not all of it.
    bool take() { return take_from_bridges(batch); }

private:
    void introduce();
    void make_nodes_ready(bool is_forwarded);

    zsock_t* m_proxy;
};

} // namespace rtls
