// program - the frame of a program on the tap: its command line, its sentences, its exit status.
//
// Ownership  The command line's options write to what their owner gave; that outlives run().
// Threads    The main thread.
// Failures   Told on the error output; the status says which kind, see failure.h.
#pragma once

#include "common/program.h"
#include "tap/failure.h"

#include <functional>
#include <memory>
#include <string>

namespace tap {

class program {
public:
    // `footer`: examples and statuses, below the options.
    program(const std::string& name, const std::string& what, const std::string& footer);
    ~program();
    program(const program&) = delete;
    program& operator=(const program&) = delete;

    // To add options to. --help, --version and --completion are there.
    CLI::App& options() { return *m_app; }
    // Parses what was given and acts; the exit status.
    int run(const tools::arguments& given, const std::function<exit_status()>& act);
    // A line on the error output.
    void note(const std::string& text) const { tools::note(m_name, text); }

private:
    exit_status acted(const std::function<exit_status()>& act) const;

    std::string m_name;
    std::unique_ptr<CLI::App> m_app;
    std::string m_shell;
};

} // namespace tap
