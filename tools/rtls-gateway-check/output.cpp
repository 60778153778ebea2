#include "rtls-gateway-check/output.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <climits>

namespace rtls::check {

static constexpr size_t indent_width = 4;
static constexpr size_t comment_column = 48;

// Control characters as \x1B; whatever is no ASCII stays, for UTF-8's sake.
static std::string visible(std::string_view text)
{
    std::string shown;
    for (const char c : text) {
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7F')
            shown += fmt::format("\\x{:02X}", static_cast<unsigned char>(c));
        else
            shown += c;
    }
    return shown;
}

// --- findings

static std::string count_text(const findings& found)
{
    std::string text;
    for (const severity level : {severity::refused, severity::ends, severity::harm, severity::warning}) {
        const auto number = std::ranges::count(found, level, &finding::level);
        if (number == 0)
            continue;
        const bool is_warning = level == severity::warning;
        text += fmt::format("{}{} {}{}", text.empty() ? "" : ", ", number, name_of(level),
                            is_warning && number > 1 ? "s" : "");
    }
    return text.empty() ? "no problem found" : text;
}

std::string findings_text(std::string_view file, const findings& found)
{
    std::string text;
    for (const finding& one : found) {
        const std::string place = one.line == 0 ? std::string{file} : fmt::format("{}:{}", file, one.line);
        const std::string key = one.key.empty() ? "" : one.key + ": ";
        text += visible(fmt::format("{}: {}: {}{}", place, name_of(one.level), key, one.text)) + "\n" +
                std::string(indent_width, ' ') + visible(one.remedy) + "\n";
    }
    return text + visible(fmt::format("{}: {}", file, count_text(found))) + "\n";
}

static nlohmann::json finding_json(const finding& one)
{
    const auto text_or_null = [](const std::string& text) {
        return text.empty() ? nlohmann::json{} : nlohmann::json(text);
    };
    return {{"level", name_of(one.level)},
            {"kind", one.kind},
            {"key", text_or_null(one.key)},
            {"line", one.line == 0 ? nlohmann::json{} : nlohmann::json(one.line)},
            {"text", one.text},
            {"remedy", one.remedy}};
}

nlohmann::json findings_json(std::string_view file, const findings& found)
{
    const bool is_refused = std::ranges::any_of(found, [](const finding& one) {
        return one.level == severity::refused || one.level == severity::ends;
    });
    nlohmann::json list = nlohmann::json::array();
    for (const finding& one : found)
        list.push_back(finding_json(one));
    return {{"file", file}, {"starts", !is_refused}, {"findings", list}};
}

// --- what holds

// As the library of configurations reads it back. It has no escapes; a value that came from a file needs none.
static std::string in_quotes(std::string_view value)
{
    static constexpr std::string_view blanks = " \t\n\v\f\r";
    static constexpr std::string_view not_first = "\"' \t\n\v\f\r";
    const bool is_plain = !value.empty() && value.find('#') == std::string_view::npos &&
                          not_first.find(value.front()) == std::string_view::npos &&
                          blanks.find(value.back()) == std::string_view::npos;
    if (is_plain)
        return std::string{value};
    const char quote = value.find('"') == std::string_view::npos ? '"' : '\'';
    return quote + std::string{value} + quote;
}

static std::string origin_of(const effective_key& one)
{
    if (!one.item)
        return "default";
    const std::string line = fmt::format("line {}", one.item->line);
    if (one.reading.fate == key_fate::ignored)
        return fmt::format("default: {} cannot be read", line);
    return one.item->value == one.reading.value ? line
                                                : fmt::format("{}: {}", line, in_quotes(one.item->value));
}

static std::string absence_of(const effective_key& one)
{
    if (one.reading.fate == key_fate::refused)
        return fmt::format("line {} cannot be read, the daemon does not start", one.item->line);
    if (one.key->presence == key_presence::optional)
        return fmt::format("default: {}", one.key->without);
    return one.key->presence == key_presence::required ? "missing, the daemon does not start"
                                                       : "no such section";
}

static std::string effective_line(const effective_key& one)
{
    const std::string indent(one.key->section().empty() ? 0 : indent_width, ' ');
    const bool has_value = one.item ? one.reading.fate != key_fate::refused : !one.key->preset.empty();
    if (!has_value)
        return visible(fmt::format("{}#   {}: {}", indent, one.key->name(), absence_of(one))) + "\n";
    const std::string item = fmt::format("{}{} = {}", indent, one.key->name(), in_quotes(one.reading.value));
    return visible(fmt::format("{:<{}} # {}", item, comment_column, origin_of(one))) + "\n";
}

// A section that may be left out means something by being there.
static bool is_shown(const effective_configuration& effective, std::string_view section)
{
    const auto is_there = [section](const effective_key& one) {
        return one.key->section() == section && one.item;
    };
    return section != "http" || std::ranges::any_of(effective.keys(), is_there);
}

std::string effective_text(const effective_configuration& effective)
{
    std::string text;
    std::string_view section;
    for (const effective_key& one : effective.keys()) {
        if (!is_shown(effective, one.key->section()))
            continue;
        if (one.key->section() != section) {
            section = one.key->section();
            text += std::string{section} + "\n";
        }
        text += effective_line(one);
    }
    return text;
}

static std::string_view source_of(const effective_key& one)
{
    if (one.reading.fate == key_fate::refused)
        return "refused";
    if (one.item && one.is_taken())
        return "file";
    return one.key->presence == key_presence::required ? "missing" : "default";
}

nlohmann::json effective_json(const effective_configuration& effective)
{
    nlohmann::json list = nlohmann::json::array();
    for (const effective_key& one : effective.keys()) {
        const bool has_value = one.item ? one.reading.fate != key_fate::refused : !one.key->preset.empty();
        list.push_back({{"key", one.key->path},
                        {"value", has_value ? nlohmann::json(one.reading.value) : nlohmann::json{}},
                        {"source", source_of(one)},
                        {"line", one.item ? nlohmann::json(one.item->line) : nlohmann::json{}},
                        {"written", one.item ? nlohmann::json(one.item->value) : nlohmann::json{}}});
    }
    return list;
}

// --- keys

static std::string range_of(const config_key& key)
{
    if (key.lowest == 0 && key.highest == 0)
        return "";
    if (key.highest == LONG_MAX || key.highest == INT_MAX)
        return fmt::format(", from {} on", key.lowest);
    return fmt::format(", from {} to {}", key.lowest, key.highest);
}

static std::string default_of(const config_key& key)
{
    return std::string{key.preset.empty() ? key.without : key.preset};
}

static std::string presence_text(const config_key& key)
{
    switch (key.presence) {
    case key_presence::required:
        return "required";
    case key_presence::required_in_section:
        return fmt::format("required in the section \"{}\"", key.section());
    case key_presence::optional:
        break;
    }
    return fmt::format("optional; without it: {}", default_of(key));
}

static std::string misreading_text(const config_key& key)
{
    if (key.is_cut)
        return "A number is cut to its low 16 bits, and what stands behind it is left out. No number: the "
               "daemon does "
               "not start.";
    if (key.misread == key_misread::ignored)
        return "A value that cannot be read counts as none.";
    switch (key.type) {
    case key_type::path:
    case key_type::host:
    case key_type::endpoint:
        return "";
    default:
        return "With a value that cannot be read the daemon does not start.";
    }
}

static std::string example_of(const config_key& key)
{
    const std::string section = key.section().empty() ? "" : fmt::format("    {}\n    ", key.section());
    return fmt::format("{}    {} = {}\n", section, key.name(), key.example);
}

std::string key_text(const config_key& key)
{
    const std::string misreading = misreading_text(key);
    return fmt::format("{}\n    {}\n    {}{}; {}\n{}\n{}", key.path, key.help, name_of(key.type),
                       range_of(key), presence_text(key),
                       misreading.empty() ? "" : fmt::format("    {}\n", misreading), example_of(key));
}

static std::string_view presence_word(const config_key& key)
{
    switch (key.presence) {
    case key_presence::required:
        return "required";
    case key_presence::required_in_section:
        return "required in its section";
    case key_presence::optional:
        break;
    }
    return "optional";
}

nlohmann::json key_json(const config_key& key)
{
    const auto text_or_null = [](std::string_view text) {
        return text.empty() ? nlohmann::json{} : nlohmann::json(text);
    };
    const bool has_range = !range_of(key).empty();
    return {{"key", key.path},
            {"section", text_or_null(key.section())},
            {"name", key.name()},
            {"type", name_of(key.type)},
            {"presence", presence_word(key)},
            {"lowest", has_range ? nlohmann::json(key.lowest) : nlohmann::json{}},
            {"highest", has_range ? nlohmann::json(key.highest) : nlohmann::json{}},
            {"low_16_bits", key.is_cut},
            {"unreadable", key.misread == key_misread::ignored ? "ignored" : "refused"},
            {"default", text_or_null(key.preset)},
            {"without", text_or_null(default_of(key))},
            {"door", text_or_null(key.door)},
            {"example", key.example},
            {"help", key.help}};
}

std::string keys_text()
{
    std::string text;
    for (const config_key& key : config_keys())
        text += fmt::format("{:<36} {:<13} {}\n", key.path, name_of(key.type), presence_text(key));
    return text;
}

nlohmann::json keys_json()
{
    nlohmann::json list = nlohmann::json::array();
    for (const config_key& key : config_keys())
        list.push_back(key_json(key));
    return {{"keys", list}, {"foreign_sections", foreign_config_sections()}};
}

} // namespace rtls::check
