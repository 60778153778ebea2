// network - runs the simulated field, the simulated servers, or both, until told to stop.
//
// Threads    The caller's, which it keeps until the end; field, servers and images have their own.
// Failures   Printed; they show in the exit status.
#pragma once

#include "rtls-sim/field.h"
#include "rtls-sim/gateway_config.h"
#include "rtls-sim/servers.h"

#include <string>

namespace sim {

struct network_options {
    bool with_field = true;
    bool with_servers = true;
    field_options field;
    servers_options servers;
    console_options console;
    double duration = 0;  // seconds of reports; 0: until interrupted
    bool check = false;   // exit with 0 only if everything arrived, once and right
    double deadline = 15; // seconds to wait: for the gateway, and for what is under way in the end
    std::string ota;      // image that a node is to fetch: a file, or GITID:CRC:SIZE[:PAGESIZE]
    std::string ota_node = "0101";
    std::string images; // directory to serve over HTTP; empty: none
    uint16_t http_port = 8080;
    bool read_commands = true; // from standard input
};

// Returns the exit status.
int run_network(const network_options& options);

} // namespace sim
