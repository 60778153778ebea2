// The names in the file: which the daemon asks for, which it never sees, which it misses.
#include "rtls-gateway-check/check.h"
#include "rtls-gateway-check/nearest.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

namespace rtls::check {

static std::string path_of(std::string_view section, std::string_view name)
{
    return section.empty() ? std::string{name} : fmt::format("{}/{}", section, name);
}

static bool is_section(std::string_view name)
{
    return std::ranges::any_of(config_keys(),
                               [name](const config_key& key) { return key.section() == name; });
}

static bool is_foreign(std::string_view name)
{
    const auto foreign = foreign_config_sections();
    return std::ranges::find(foreign, name) != foreign.end();
}

// What may stand in the section; in the file itself sections, too.
static std::vector<std::string_view> names_in(std::string_view section)
{
    std::set<std::string_view> names;
    for (const config_key& key : config_keys()) {
        if (key.section() == section)
            names.insert(key.name());
        else if (section.empty())
            names.insert(key.section());
    }
    return {names.begin(), names.end()};
}

static std::vector<std::string_view> paths_that_end_with(std::string_view name)
{
    std::vector<std::string_view> paths;
    for (const config_key& key : config_keys())
        if (key.name() == name)
            paths.push_back(key.path);
    return paths;
}

static std::string_view nearest_anywhere(std::string_view name)
{
    std::vector<std::string_view> names;
    for (const config_key& key : config_keys())
        names.push_back(key.name());
    return nearest(name, names);
}

static std::string how_to_write(std::string_view path, std::string_view value)
{
    const size_t slash = path.find('/');
    if (slash == std::string_view::npos)
        return fmt::format("write \"{} = {}\", not indented", path, value);
    return fmt::format("write \"{} = {}\" below \"{}\", indented by four blanks", path.substr(slash + 1),
                       value, path.substr(0, slash));
}

// --- names that nothing asks for

static void add_misplaced(inspection& at, const zpl_item& item, const std::string& path,
                          const std::vector<std::string_view>& meant)
{
    for (const std::string_view one : meant)
        at.meant.emplace(one, item.line);
    at.add(severity::harm, "misplaced", path, item.line,
           fmt::format("nothing reads it here: the daemon looks for {}", fmt::join(meant, " or ")),
           how_to_write(meant.front(), item.value));
}

static void add_misspelt(inspection& at, const zpl_item& item, const std::string& path,
                         const std::string& meant)
{
    at.meant.emplace(meant, item.line);
    at.add(severity::harm, "misspelt", path, item.line,
           fmt::format("there is no such {}, it is left out; \"{}\" may be meant",
                       item.children.empty() ? "key" : "section", meant),
           fmt::format("correct the name, or take the {} out", item.children.empty() ? "line" : "lines"));
}

static void check_unknown(inspection& at, const zpl_item& item, std::string_view section)
{
    const std::string path = path_of(section, item.name);
    if (const auto near = nearest(item.name, names_in(section)); !near.empty())
        return add_misspelt(at, item, path, path_of(section, near));
    if (const auto elsewhere = paths_that_end_with(item.name); !elsewhere.empty())
        return add_misplaced(at, item, path, elsewhere);
    if (const auto near = nearest_anywhere(item.name); !near.empty())
        return add_misplaced(at, item, path, paths_that_end_with(near));
    at.add(severity::warning, "unknown", path, item.line, "the daemon knows no such name, and leaves it out",
           "take it out; rtls-gateway-check --list-keys has all keys");
}

// A path as it would be asked for, written as one name.
static void add_path_as_name(inspection& at, const zpl_item& item)
{
    at.meant.emplace(item.name, item.line);
    at.add(severity::harm, "misplaced", item.name, item.line,
           "a name with a slash is never found: the slash stands between a section and a key",
           how_to_write(item.name, item.value));
}

// Whatever is below a key: nothing looks there.
static void check_below_key(inspection& at, const zpl_item& key, const std::string& path)
{
    const std::string section = path.substr(0, path.find('/') + 1);
    for (const zpl_item& item : key.children) {
        const std::string beside = section + item.name;
        const bool is_meant = find_config_key(beside) != nullptr;
        if (is_meant)
            at.meant.emplace(beside, item.line);
        at.add(is_meant ? severity::harm : severity::warning, is_meant ? "misplaced" : "unknown",
               path_of(path, item.name), item.line,
               fmt::format("it is indented as a part of \"{}\", where nothing reads it", path),
               is_meant ? how_to_write(beside, item.value) : "take it out");
    }
}

// --- names that stand there twice

static bool is_same(const zpl_item& one, const zpl_item& other)
{
    return one.value == other.value && one.children.empty() && other.children.empty();
}

static void check_repeated(inspection& at, const zpl_item& parent, const zpl_item& item,
                           std::string_view section)
{
    const zpl_item* first = parent.child(item.name);
    const bool is_part = !item.children.empty();
    at.add(is_same(*first, item) ? severity::warning : severity::harm, "repeated",
           path_of(section, item.name), item.line,
           fmt::format("stands in line {} already, and only what stands there counts{}", first->line,
                       is_part ? ": nothing of this one is seen" : ""),
           is_part ? fmt::format("move its keys to line {}", first->line) : "take one of the two out");
}

static void check_section(inspection& at, const zpl_item& section);

static void check_item(inspection& at, const zpl_item& item, std::string_view section)
{
    const std::string path = path_of(section, item.name);
    const bool has_slash = item.name.find('/') != std::string::npos;
    if (has_slash && find_config_key(item.name))
        add_path_as_name(at, item);
    else if (!has_slash && find_config_key(path))
        check_below_key(at, item, path);
    else if (section.empty() && is_section(item.name))
        check_section(at, item);
    else if (!section.empty() || !is_foreign(item.name))
        check_unknown(at, item, section);
}

static void check_children(inspection& at, const zpl_item& parent, std::string_view section)
{
    for (const zpl_item& item : parent.children) {
        if (parent.child(item.name) == &item)
            check_item(at, item, section);
        else
            check_repeated(at, parent, item, section);
    }
}

static void check_section(inspection& at, const zpl_item& section)
{
    if (!section.value.empty())
        at.add(severity::warning, "unknown", section.name, section.line,
               fmt::format("a section has no value: \"{}\" is left out", section.value),
               "take the value out");
    check_children(at, section, section.name);
}

// --- names that are not there

static bool is_missing(const inspection& at, const effective_key& one)
{
    if (one.item)
        return false;
    return one.key->presence == key_presence::required ||
           (one.key->presence == key_presence::required_in_section &&
            at.file.root.locate(one.key->section()));
}

// Of a name that was probably to be the key, or its section; 0 without one.
static size_t line_that_is_meant(const inspection& at, const config_key& key)
{
    auto meant = at.meant.find(key.path);
    if (meant == at.meant.end())
        meant = at.meant.find(key.section());
    return meant == at.meant.end() ? 0 : meant->second;
}

static void check_missing(inspection& at)
{
    for (const effective_key& one : at.effective.keys()) {
        if (!is_missing(at, one))
            continue;
        const size_t meant = line_that_is_meant(at, *one.key);
        at.add(severity::refused, "missing", one.key->path, "it is required, and is not there",
               meant != 0 ? fmt::format("line {} may be meant", meant)
                          : how_to_write(one.key->path, one.key->example));
    }
}

void check_names(inspection& at)
{
    check_children(at, at.file.root, "");
    check_missing(at);
}

} // namespace rtls::check
