// program - the frame of a program on the tap: its command line, its sentences, its exit status.
//
// Ownership  The command line's options write to what their owner gave; that outlives run().
// Threads    The main thread.
// Failures   Told on the error output; the status says which kind, see failure.h.
#pragma once

#include "tap/failure.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CLI { // NOLINT(readability-identifier-naming): the library is called so
class App;
}

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
    const std::string& name() const { return m_name; }
    // Parses `arguments`, which are without the program's name, and acts; the exit status.
    int run(const std::vector<std::string>& arguments, const std::function<exit_status()>& act);
    // A line on the error output.
    void note(const std::string& text) const;

private:
    exit_status acted(const std::function<exit_status()>& act) const;
    void print_completion() const;

    std::string m_name;
    std::unique_ptr<CLI::App> m_app;
    std::string m_shell;
};

// The last thing that main does: `run` with what it was started with. Whoever reads may leave.
int run_main(int argc, char** argv, int (*run)(const std::vector<std::string>& arguments));

// On the output. False when nobody reads any more; no room for it is a failure.
bool print(const std::string& text);
bool flush_output();

} // namespace tap
