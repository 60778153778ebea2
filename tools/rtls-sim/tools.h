// tools - the subcommands that do one thing and end. Each returns the exit status.
//
// Threads    The main thread, which waits as long as the work takes.
// Failures   Printed on the error output; the status tells which (status.h). Throws tools::output_error when there is no
//            room for what it prints.
#pragma once

#include "rtls-sim/image.h"

#include <cstdint>
#include <string>
#include <vector>

namespace sim {

struct send_options {
    std::string address = "127.0.0.1"; // to bind the proxy's port to
    uint16_t port = 5555;
    double timeout = 10; // seconds to wait for the gateway to subscribe
    unsigned times = 1;
    std::vector<std::string> words; // the command; see command.h
};
// Plays the proxy for as long as it takes to publish one command.
int run_send(const send_options& options);

struct image_make_options {
    image_traits traits;
    std::string where; // file, or directory for a file of the usual name
};
int run_image_make(const image_make_options& options);
int run_image_info(const std::string& file);

struct image_serve_options {
    std::string directory = ".";
    std::string address = "127.0.0.1";
    uint16_t port = 8080;
};
// Until interrupted.
int run_image_serve(const image_serve_options& options);

struct discover_options {
    std::string address = "127.0.0.1";
    uint16_t port = 4002;
    double timeout = 2; // seconds
};
int run_discover(const discover_options& options);

struct config_options {
    std::string pid_file = "rtls-gateway.pid";
    bool free_ports = false; // replace those of the usual ports that are taken
};
int run_config(const config_options& options);

} // namespace sim
