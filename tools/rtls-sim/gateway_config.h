// gateway_config - the ports that gateway and simulator share: read from the gateway's configuration file,
// or written into a new one.
//
// Threads    Any; nothing is kept.
// Failures   A file that cannot be read is nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace sim {

struct gateway_ports {
    uint16_t terminal = 4000;
    uint16_t win = 4001;
    uint16_t discovery = 4002;
    uint16_t proxy = 5555;
    uint16_t proxy_input = 5556;
    uint16_t handler = 5557;
    uint16_t broker = 5558;
    uint16_t images = 8080; // HTTP, the simulator's own
};

// The ports in a gateway's configuration file; nothing when the file cannot be read. What the file does not
// say stays as it is by default.
std::optional<gateway_ports> read_ports(const std::string& config_file);

// The usual ports, each replaced by any free one when somebody has it; or only free ones, none of them usual.
enum class port_choice { usual_if_free, any_free };
gateway_ports free_ports(port_choice choice = port_choice::usual_if_free);

// A configuration file for a gateway on this machine with these ports.
std::string config_text(const gateway_ports& ports, const std::string& pid_file);

} // namespace sim
