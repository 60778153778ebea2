// commands - what each subcommand does.
//
// Ownership  A request is read by its command alone.
// Threads    The main thread; gateways are asked side by side (report.h).
// Blocking   As long as the gateways take, their time-outs at most; `follow` until it is ended.
// Failures   Wrong arguments are thrown (usage); what a gateway refuses is told, and the status of the program.
#pragma once

#include "doors/facts.h"
#include "doors/failure.h"
#include "doors/gateway.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace ctl {

// What the command line says.
struct request {
    // Whom to ask, and how.
    std::vector<std::string> gateways;
    std::string terminal;
    std::string http;
    std::string token_file;
    std::string daemon_config;
    std::string config_file;
    way wanted = way::any;
    std::optional<double> timeout; // seconds
    // How to tell it.
    bool as_json = false;
    size_t width = 0;
    // What for.
    node_filter nodes;
    std::vector<std::string> macs;
    std::string image; // URL, or version
    double interval = 1;
    std::string section;
    std::string choice;
    std::vector<std::string> sections;
    std::string pattern;
    std::vector<std::string> figures;
};

exit_status show_nodes(const request& r);
exit_status show_node(const request& r);
exit_status show_bridges(const request& r);
exit_status show_operators(const request& r);
exit_status show_firmware(const request& r);
exit_status show_metrics(const request& r);
exit_status show_health(const request& r);
exit_status reboot_nodes(const request& r);
exit_status delete_nodes(const request& r);
exit_status get_firmware(const request& r);
exit_status apply_firmware_to(const request& r);
exit_status update_firmware(const request& r);
exit_status debug_section(const request& r);
exit_status follow_sections(const request& r);

} // namespace ctl
