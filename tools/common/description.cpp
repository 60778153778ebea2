#include "common/description.h"

#include <CLI/CLI.hpp>

namespace tools {

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

described_command described(const CLI::App& app)
{
    described_command it{app.get_name(), app.get_description(), {}, {}};
    for (const CLI::Option* option : app.get_options())
        it.options.push_back(described(*option));
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App*) { return true; }))
        it.commands.push_back(described(*sub));
    return it;
}

} // namespace tools
