#include "tap/program.h"

#include "recording/files.h"
#include "tap/completion.h"
#include "tap_version.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>

namespace tap {

program::program(const std::string& name, const std::string& what, const std::string& footer)
    : m_name(name), m_app(std::make_unique<CLI::App>(what, name))
{
    m_app->footer(footer);
    m_app->set_version_flag("--version", fmt::format("{} {}", name, program_version));
    m_app->failure_message([name](const CLI::App*, const CLI::Error& why) {
        return fmt::format("{0}: {1} ({0} --help)\n", name, why.what());
    });
    m_app->add_option("--completion", m_shell, "Print what a shell needs to complete commands")
        ->check(CLI::IsMember({"bash", "zsh"}));
}

program::~program() = default;

// The values in "TEXT:{one,two}", which is how a check of membership describes itself.
static std::vector<std::string> choices_of(const CLI::Option& option)
{
    const std::string type = option.get_type_name();
    const size_t begin = type.find('{');
    const size_t end = type.find('}', begin);
    if (begin == std::string::npos || end == std::string::npos)
        return {};
    return CLI::detail::split(type.substr(begin + 1, end - begin - 1), ',');
}

static described_option described(const CLI::Option& option)
{
    described_option it;
    for (const std::string& name : option.get_snames())
        it.names.push_back("-" + name);
    for (const std::string& name : option.get_lnames())
        it.names.push_back("--" + name);
    it.meaning = option.get_description();
    it.choices = choices_of(option);
    it.has_value = option.get_expected_max() > 0;
    it.is_file = option.get_type_name().starts_with("FILE");
    return it;
}

void program::print_completion() const
{
    described_program all{m_name, {}};
    for (const CLI::Option* option : m_app->get_options())
        if (!option->get_positional())
            all.options.push_back(described(*option));
    print(m_shell == "bash" ? bash_completion(all) : zsh_completion(all));
}

void program::note(const std::string& text) const
{
    fmt::print(stderr, "{}: {}\n", m_name, text);
}

exit_status program::acted(const std::function<exit_status()>& act) const
try {
    if (!m_shell.empty())
        print_completion();
    const exit_status status = m_shell.empty() ? act() : exit_status::done;
    flush_output();
    return status;
} catch (const failure& why) {
    note(why.what());
    return why.status();
} catch (const rtls::recording::file_error& why) {
    note(why.what());
    return exit_status::failed;
}

int program::run(const std::vector<std::string>& arguments, const std::function<exit_status()>& act)
{
    try {
        std::vector<std::string> from_the_end{arguments.rbegin(), arguments.rend()};
        m_app->parse(from_the_end);
    } catch (const CLI::ParseError& why) {
        return m_app->exit(why) == 0 ? 0 : static_cast<int>(exit_status::usage);
    }
    return static_cast<int>(acted(act));
}

int run_main(int argc, char** argv, int (*run)(const std::vector<std::string>& arguments))
{
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return run({argv + 1, argv + argc});
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        return static_cast<int>(exit_status::failed);
    }
}

static bool has_reader(bool is_written)
{
    if (is_written)
        return true;
    if (errno == EPIPE)
        return false;
    throw failure(exit_status::failed, fmt::format("cannot write the output: {}", std::strerror(errno)));
}

bool print(const std::string& text)
{
    return has_reader(std::fwrite(text.data(), 1, text.size(), stdout) == text.size());
}

bool flush_output()
{
    return has_reader(std::fflush(stdout) == 0 && std::ferror(stdout) == 0);
}

} // namespace tap
