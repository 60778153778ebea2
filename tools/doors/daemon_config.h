// daemon_config - a gateway of this host, by the configuration that it runs with: that knows where its terminal
// and its HTTP port are, and the token.
//
// Threads    The main thread.
// Blocking   A small file is read.
// Failures   Thrown with the status `usage`.
#pragma once

#include "doors/gateways_file.h"

#include <iosfwd>
#include <string>

namespace ctl {

inline constexpr char daemon_config_file[] = "/etc/rtls-gateway/rtls-gateway.conf"; // as it is installed

gateway_address read_daemon_config(std::istream& in);

// The same out of a file; called by the address of its terminal.
gateway_address gateway_by_config(const std::string& name);

} // namespace ctl
