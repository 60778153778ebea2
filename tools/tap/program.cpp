#include "tap/program.h"

#include "common/completion.h"
#include "common/output.h"
#include "recording/files.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace tap {

program::program(const std::string& name, const std::string& what, const std::string& footer)
    : m_name(name), m_app(std::make_unique<CLI::App>(what, name))
{
    m_app->footer(footer);
    m_app->set_version_flag("--version", fmt::format("{} {}", name, tools::program_version));
    m_app->failure_message([name](const CLI::App*, const CLI::Error& why) {
        return fmt::format("{0}: {1} ({0} --help)\n", name, why.what());
    });
    m_app->add_option("--completion", m_shell, "Print what a shell needs to complete commands")
        ->check(CLI::IsMember({"bash", "zsh"}));
}

program::~program() = default;

exit_status program::acted(const std::function<exit_status()>& act) const
try {
    if (!m_shell.empty())
        tools::print(tools::completion(tools::described(*m_app), m_shell, "--completion"));
    const exit_status status = m_shell.empty() ? act() : exit_status::done;
    tools::flush_output();
    return status;
} catch (const failure& why) {
    note(why.what());
    return why.status();
} catch (const rtls::recording::file_error& why) {
    note(why.what());
    return exit_status::failed;
} catch (const tools::output_error& why) {
    note(why.what());
    return exit_status::failed;
}

int program::run(const tools::arguments& given, const std::function<exit_status()>& act)
{
    const auto ended = tools::parse(*m_app, given, static_cast<int>(exit_status::usage));
    return ended ? *ended : static_cast<int>(acted(act));
}

} // namespace tap
