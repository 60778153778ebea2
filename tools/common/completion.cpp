#include "common/completion.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace tools {

namespace {

struct offered_word {
    std::string text;
    std::string meaning;
};

// What may stand behind the subcommands of `path`, as in "firmware get".
struct place {
    std::string path;
    std::vector<offered_word> words;
    bool takes_files = false;
};

// An option that wants a value: what may be one; none when that is free.
struct valued_option {
    std::string names; // for a shell's case: "-g|--gateway"
    std::vector<std::string> values;
    bool is_file = false;
};

// As a shell loads it: what is offered where, and who asks.
struct description {
    std::string program;
    std::string function; // as a shell may call one
    std::vector<place> places;
    std::vector<valued_option> options;
};

} // namespace

static void offer(place& here, const std::string& word, const std::string& meaning)
{
    if (std::ranges::find(here.words, word, &offered_word::text) == here.words.end())
        here.words.push_back({word, meaning});
}

static void add_option(description& all, place& here, const described_option& option)
{
    for (const std::string& word : option.names.empty() ? option.choices : option.names)
        offer(here, word, option.meaning);
    here.takes_files |= option.names.empty() && option.is_file;
    if (option.names.empty() || !option.has_value)
        return;
    const std::string names = fmt::format("{}", fmt::join(option.names, "|"));
    if (std::ranges::find(all.options, names, &valued_option::names) == all.options.end())
        all.options.push_back({names, option.choices, option.is_file});
}

// `way`: the program, and the commands that lead here.
static void describe(description& all, std::vector<const described_command*> way, const std::string& path)
{
    place here{path, {}, false};
    const described_command& command = *way.back();
    for (const described_command& sub : command.commands)
        offer(here, sub.name, sub.meaning);
    std::for_each(way.rbegin(), way.rend(), [&](const described_command* from) {
        for (const described_option& option : from->options)
            add_option(all, here, option);
    });
    all.places.push_back(std::move(here));
    for (const described_command& sub : command.commands) {
        way.push_back(&sub);
        describe(all, way, path.empty() ? sub.name : path + " " + sub.name);
        way.pop_back();
    }
}

static description describe(const described_command& program)
{
    description all{program.name, "_" + program.name, {}, {}};
    std::ranges::replace(all.function, '-', '_');
    describe(all, {&program}, "");
    return all;
}

// Between single quotes.
static std::string quoted(std::string text)
{
    for (size_t at = text.find('\''); at != std::string::npos; at = text.find('\'', at + 4))
        text.replace(at, 1, "'\\''");
    return "'" + text + "'";
}

// The paths as patterns of a case.
static std::string paths_of(const description& all)
{
    std::vector<std::string> paths;
    for (const place& it : all.places)
        if (!it.path.empty())
            paths.push_back(quoted(it.path));
    return fmt::format("{}", fmt::join(paths, "|"));
}

static std::string names_with_values(const description& all)
{
    std::vector<std::string> names;
    for (const valued_option& it : all.options)
        names.push_back(it.names);
    return fmt::format("{}", fmt::join(names, "|"));
}

// Walks over the words before the one that is typed, in either shell: `place` gets the subcommands among them. Of a
// program without any it is empty.
static std::string path_loop(const description& all, const char* first, const char* words,
                             const char* current)
{
    if (all.places.size() == 1)
        return "    local place=''\n";
    return fmt::format(R"(    local place='' skip='' i word
    for ((i = {}; i < {}; i++)); do
        word=${{{}[i]}}
        if [[ -n $skip ]]; then skip=''; continue; fi
        case "$word" in {}) skip=1; continue ;; esac
        case "${{place:+$place }}$word" in {}) place="${{place:+$place }}$word" ;; esac
    done
)",
                       first, current, words, names_with_values(all), paths_of(all));
}

static std::string head_of(const description& all, const char* shell, std::string_view asked_by)
{
    return fmt::format("# Completion for {0}, by: {1} {2} {0}\n{3}() {{\n", shell, all.program, asked_by,
                       all.function);
}

static std::string words_of(const place& it)
{
    std::string words;
    for (const offered_word& word : it.words)
        words += (words.empty() ? "" : " ") + word.text;
    return quoted(words);
}

static std::string bash_completion(const description& all, std::string_view asked_by)
{
    std::string text =
        head_of(all, "bash", asked_by) +
        "    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} words='' files=''\n" +
        path_loop(all, "1", "COMP_WORDS", "COMP_CWORD") + "    case \"$prev\" in\n";
    for (const valued_option& it : all.options)
        text += fmt::format("    {}) COMPREPLY=($(compgen {} -- \"$cur\")); return ;;\n", it.names,
                            it.is_file ? "-f" : "-W " + quoted(fmt::format("{}", fmt::join(it.values, " "))));
    text += "    esac\n    case \"$place\" in\n";
    for (const place& it : all.places)
        text += fmt::format("    {}) words={}{} ;;\n", quoted(it.path), words_of(it),
                            it.takes_files ? " files=-f" : "");
    return text + fmt::format("    esac\n    COMPREPLY=($(compgen $files -W \"$words\" -- \"$cur\"))\n}}\n"
                              "complete -o filenames -F {} {}\n",
                              all.function, all.program);
}

// What _describe takes: "word:meaning", in which a colon of the word would be escaped.
static std::string zsh_words(const place& it)
{
    std::string text;
    for (const offered_word& word : it.words)
        text += " " + quoted(word.text + ":" + word.meaning);
    return text;
}

static std::string zsh_completion(const description& all, std::string_view asked_by)
{
    std::string text = fmt::format("#compdef {}\n", all.program) + head_of(all, "zsh", asked_by) +
                       "    local -a offered\n    local files=''\n" +
                       path_loop(all, "2", "words", "CURRENT") + "    case \"${words[CURRENT-1]}\" in\n";
    for (const valued_option& it : all.options)
        text += fmt::format("    {}) {}; return ;;\n", it.names,
                            it.is_file          ? "_files"
                            : it.values.empty() ? ":"
                                                : fmt::format("compadd -- {}", fmt::join(it.values, " ")));
    text += "    esac\n    case \"$place\" in\n";
    for (const place& it : all.places)
        text += fmt::format("    {}) offered=({} ){} ;;\n", quoted(it.path), zsh_words(it),
                            it.takes_files ? " files=1" : "");
    return text +
           fmt::format("    esac\n    _describe '{0}' offered\n    [[ -z $files ]] || _files\n}}\n"
                       "if [[ ${{funcstack[1]}} == {1} ]]; then {1} \"$@\"; else compdef {1} {0}; fi\n",
                       all.program, all.function);
}

std::string completion(const described_command& program, std::string_view shell, std::string_view asked_by)
{
    const description all = describe(program);
    return shell == "bash" ? bash_completion(all, asked_by) : zsh_completion(all, asked_by);
}

} // namespace tools
