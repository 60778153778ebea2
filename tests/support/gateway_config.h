// gateway_config - the configuration of a test's gateway: complete, until a test changes it.
//
// Threads    A value: one at a time.
// Failures   Throws std::runtime_error when it is asked for a port that it does not have.
#pragma once

#include "base/czmq_ptr.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace rtls {

class gateway_config {
public:
    struct item {
        std::string path; // "pidfile", "ports/win"
        std::string value;
    };

    // No PID file, three firmware images, all debug sections off, every server on this machine; all ports
    // are free ones and belong to this process.
    gateway_config();

    // Changes a key, or adds it.
    gateway_config& set(std::string_view path, std::string_view value);
    gateway_config& set(std::string_view path, uint16_t value);
    gateway_config& remove(std::string_view path);

    uint16_t port(std::string_view path) const;
    // The text of the file.
    std::string text() const;
    // What reading that file makes.
    zconfig_ptr tree() const;

    // The required keys in the order in which they are read, then the debug sections.
    std::vector<item> items;
};

} // namespace rtls
