// options - what the command line of rtls-mqtt says, and what the connector is made of.
//
// Ownership  Values.
// Threads    Any.
// Blocking   The file with user and password is read.
// Failures   What does not fit together, and files that cannot be used: tap::failure, usage.
#pragma once

#include "rtls-mqtt/connector.h"

#include <string>

namespace CLI { // NOLINT(readability-identifier-naming): the library is called so
class App;
}

namespace mqtt {

struct request {
    connector_options what;
    std::string broker = "127.0.0.1";
    std::string terminal = "127.0.0.1";
    std::string login_file;
};

void add_options(CLI::App& app, request& asked);

// Checked, with what was left out: this host's name for the gateway's, a client of that name, the usual ports.
connector_options settled(request asked);

// Whether a password would go through a network in clear.
bool tells_password(const broker_options& options);

} // namespace mqtt
