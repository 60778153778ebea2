// certificates - the keys for a tap that is encrypted (CurveZMQ), out of certificates in CZMQ's format.
//
// Ownership  Values.
// Threads    Any.
// Blocking   As files do.
// Failures   A file that is no certificate, or lacks its secret key: failure, usage.
#pragma once

#include <string>

namespace CLI { // NOLINT(readability-identifier-naming): the library is called so
class App;
}

namespace tap {

// Files. Both, or none: then the tap is not encrypted.
struct certificate_files {
    std::string own;     // with its secret key; of "a" and "a_secret" the latter is read
    std::string gateway; // its public certificate

    bool are_named() const { return !own.empty(); }
};

// 40 characters of Z85 each.
struct curve_keys {
    std::string gateway;
    std::string own_public;
    std::string own_secret;
};

// --certificate and --gateway-certificate, of which each needs the other. `group`: where --help shows them.
void add_certificate_options(CLI::App& app, certificate_files& to, const std::string& group);
curve_keys read_certificates(const certificate_files& from);

} // namespace tap
