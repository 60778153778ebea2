// check - everything that can be said about a configuration before the daemon is started with it.
//
// Ownership  The file and the machine are the caller's, and outlive the call. Findings are values.
// Threads    One at a time.
// Blocking   With a machine: reads the files that keys name, and waits for its name servers.
// Failures   Throws std::bad_alloc.
#pragma once

#include "rtls-gateway-check/finding.h"
#include "rtls-gateway-check/key_reading.h"
#include "rtls-gateway-check/surroundings.h"
#include "rtls-gateway-check/zpl_file.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace rtls::check {

struct check_options {
    const surroundings* machine = nullptr; // borrowed; without one the file is judged alone
    std::optional<int64_t> bridges;        // how many are going to be connected, if that is known
};

// By their lines; what belongs to no line comes last.
findings check_configuration(const zpl_file& file, const check_options& options);

// --- for the parts of the check

// What the parts work on.
struct inspection {
    inspection(const zpl_file& checked, const check_options& asked)
        : file(checked), options(asked), effective(checked)
    {
    }

    // About a line.
    void add(severity level, std::string_view kind, std::string_view key, size_t line, std::string text,
             std::string remedy);
    // About a key of the table, where it stands.
    void add(severity level, std::string_view kind, std::string_view key, std::string text,
             std::string remedy);

    const zpl_file& file;
    const check_options& options;
    const effective_configuration effective;
    std::map<std::string, size_t, std::less<>>
        meant; // keys that misspelt ones were probably to be, and their lines
    findings found;
};

void check_names(inspection& at);    // missing, unknown, misspelt, repeated
void check_values(inspection& at);   // each value for itself
void check_links(inspection& at);    // servers: hosts, names, endpoints; ports that clash
void check_curve(inspection& at);    // certificates
void check_doors(inspection& at);    // who can come in, and where; tokens
void check_limits(inspection& at);   // numbers that do not fit together
void check_pid_file(inspection& at); // where it is going to stand

} // namespace rtls::check
