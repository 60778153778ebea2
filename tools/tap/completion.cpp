#include "tap/completion.h"

#include <fmt/format.h>

#include <algorithm>

namespace tap {

// As a shell may call a function.
static std::string function_of(std::string name)
{
    std::ranges::replace(name, '-', '_');
    return "_" + name;
}

std::string bash_completion(const described_program& program)
{
    const std::string function = function_of(program.name);
    std::string text =
        fmt::format("# Completion for bash, by: {0} --completion bash\n{1}() {{\n"
                    "    local cur=${{COMP_WORDS[COMP_CWORD]}} prev=${{COMP_WORDS[COMP_CWORD-1]}}\n"
                    "    case \"$prev\" in\n",
                    program.name, function);
    std::string words;
    for (const described_option& it : program.options) {
        words += fmt::format("{}{}", words.empty() ? "" : " ", fmt::join(it.names, " "));
        if (it.has_value)
            text += fmt::format("    {}) COMPREPLY=($(compgen {} -- \"$cur\")); return ;;\n",
                                fmt::join(it.names, "|"),
                                it.is_file ? "-f" : fmt::format("-W '{}'", fmt::join(it.choices, " ")));
    }
    return text + fmt::format("    esac\n    COMPREPLY=($(compgen -f -W '{}' -- \"$cur\"))\n}}\n"
                              "complete -o filenames -F {} {}\n",
                              words, function, program.name);
}

// Between single quotes, and within brackets: what would end either is not said.
static std::string zsh_meaning(std::string text)
{
    std::erase_if(text, [](char c) { return c == '\'' || c == '[' || c == ']' || c == ':'; });
    return text;
}

static std::string zsh_value(const described_option& it)
{
    if (!it.has_value)
        return "";
    return it.is_file           ? ":file:_files"
           : it.choices.empty() ? ":value: "
                                : fmt::format(":value:({})", fmt::join(it.choices, " "));
}

std::string zsh_completion(const described_program& program)
{
    const std::string function = function_of(program.name);
    std::string text = fmt::format("#compdef {0}\n# Completion for zsh, by: {0} --completion zsh\n{1}() {{\n"
                                   "    _arguments",
                                   program.name, function);
    for (const described_option& it : program.options)
        for (const std::string& name : it.names)
            text += fmt::format(" \\\n        '*{}[{}]{}'", name, zsh_meaning(it.meaning), zsh_value(it));
    return text +
           fmt::format(" \\\n        '*:file:_files'\n}}\n"
                       "if [[ ${{funcstack[1]}} == {0} ]]; then {0} \"$@\"; else compdef {0} {1}; fi\n",
                       function, program.name);
}

} // namespace tap
