// config_keys - every key of the configuration, once: its name, what may stand there, what holds without it.
//
// The daemon reads each key where it is needed, by functions of its own. This table is for whoever has to know all
// of them: rtls-gateway-check, the pages about them. Tests hold it against what the daemon asks for, the sample
// configuration and the documentation.
// Ownership  None: rows and texts live as long as the program.
// Threads    Constants: any. Nothing waits.
// Failures   What is no key has no row.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace rtls {

enum class key_type : uint8_t {
    path,         // of a file that the daemon writes
    file,         // that the daemon reads
    host,         // a server's name or IPv4 address
    endpoint,     // of a ZeroMQ socket
    port,         // TCP or UDP
    number,       // of something
    boolean,      // by its first character
    address,      // an IPv4 address of this host, or "*"
    networks,     // IPv4 networks
    macs,         // MACs, or ranges of them
    url_prefixes, // beginnings of URLs
};

enum class key_presence : uint8_t {
    required,
    required_in_section, // where its section is
    optional,
};

// What becomes of a value that is none of the type.
enum class key_misread : uint8_t {
    refused, // the daemon does not start
    ignored, // as if the key were not there
};

struct config_key {
    std::string_view path; // "ports/win"
    key_type type;
    key_presence presence;
    key_misread misread;
    bool is_cut;    // a number: the low 16 bits of what stands there count, and what follows it does not
    int64_t lowest; // a number: what makes sense. Below and above it the daemon may take it all the same.
    int64_t highest;
    std::string_view preset;  // the value that holds without it; "": none
    std::string_view without; // ... or what that means
    std::string_view door;    // the door that it belongs to: "win", "terminal", "discovery", "http" or ""
    std::string_view example;
    std::string_view help;

    std::string_view section() const noexcept; // "" for keys of the file's own
    std::string_view name() const noexcept;    // behind the section
};

// In the order of the sample configuration.
std::span<const config_key> config_keys() noexcept;
// The row of "section/name", or nullptr.
const config_key* find_config_key(std::string_view path) noexcept;
// "path", "URL prefixes"
std::string_view name_of(key_type type) noexcept;

// Sections that other programs keep in the daemon's file.
std::span<const std::string_view> foreign_config_sections() noexcept;

} // namespace rtls
