// gateways_file - which gateways there are, where, and what the configuration file says of them.
//
// Ownership  Values.
// Threads    The main thread.
// Blocking   A small file is read.
// Failures   Thrown with the status `usage`, the file and the line.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace ctl {

struct endpoint {
    std::string host;
    uint16_t port = 0;
};

// "10.0.0.5", "10.0.0.5:4000", "[::1]:4000". Nothing when that is none.
std::optional<endpoint> parse_endpoint(const std::string& text, uint16_t usual_port);
std::string to_text(const endpoint& where);

constexpr uint16_t usual_terminal_port = 4000;
constexpr uint16_t usual_http_port = 8080;

struct gateway_address {
    std::string name;
    std::optional<endpoint> terminal;
    std::string http; // "http://host:port", or https; empty: none that we know of
    std::string token_file;
};

struct gateways_file {
    std::string name; // of the file; empty: there is none
    std::vector<gateway_address> gateways;
    std::vector<std::string> usual; // which ones without -g
    std::optional<double> timeout;  // seconds

    const gateway_address* find(const std::string& gateway) const;
};

// Lines "key = value"; those of a gateway stand behind its name in brackets.
gateways_file read_gateways(std::istream& in, const std::string& name);

// The file that was given, or the first that is there: $RTLS_CTL_CONFIG, ~/.config/rtls-ctl.conf
// ($XDG_CONFIG_HOME), /etc/rtls-gateway/rtls-ctl.conf. One that was asked for must be there.
gateways_file load_gateways(const std::string& given);

// A gateway by what was typed for it: its name in the file, or the address of its terminal.
gateway_address gateway_by_word(const gateways_file& file, const std::string& word);

// The gateways to speak to when nobody says which: those that the file calls usual, or its only one; without a
// file the one of this host.
std::vector<gateway_address> usual_gateways(const gateways_file& file);

// "10.0.0.5:8080" or a URL, as a URL. Throws when it is neither.
std::string http_base(const std::string& text);

} // namespace ctl
