#include "rtls-gateway-check/key_reading.h"

#include "base/config.h"
#include "base/prefix_list.h"
#include "http/http_rules.h"
#include "net/door.h"
#include "tap/tap_socket.h"

#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdlib>

namespace rtls::check {

static key_reading refused()
{
    return {.fate = key_fate::refused, .value = {}};
}

// A configuration with nothing but these keys.
static zconfig_ptr tree_of(const config_key& key, const std::string& text)
{
    zconfig_ptr tree{zconfig_new("root", nullptr)};
    zconfig_put(tree.get(), std::string{key.path}.c_str(), text.c_str());
    return tree;
}

static key_reading taken(std::string value)
{
    return {.fate = key_fate::taken, .value = std::move(value)};
}

static key_reading unreadable(const config_key& key)
{
    return {.fate = key.misread == key_misread::ignored ? key_fate::ignored : key_fate::refused, .value = {}};
}

// What the daemon prints of a list, it does not keep: words are what it sees.
static std::string in_words(const std::string& text)
{
    std::string joined;
    for (const std::string& word : words_of(text))
        joined += (joined.empty() ? "" : ", ") + word;
    return joined;
}

static key_reading read_cut_number(const config_key& key, const std::string& text)
{
    uint16_t number = 0;
    const zconfig_ptr tree = tree_of(key, text);
    if (!config_value_uint16_t_get(tree.get(), std::string{key.path}.c_str(), &number))
        return refused();
    if (key.type == key_type::number && (number < key.lowest || number > key.highest))
        return refused(); // the store of images; any port is taken
    return taken(std::to_string(number));
}

static key_reading read_boolean(const config_key& key, const std::string& text)
{
    bool is_on = false;
    const zconfig_ptr tree = tree_of(key, text);
    if (!config_value_bool_get(tree.get(), std::string{key.path}.c_str(), &is_on))
        return unreadable(key);
    return taken(is_on ? "yes" : "no");
}

static key_reading read_http_key(const config_key& key, const std::string& text)
{
    zconfig_ptr tree{zconfig_new("root", nullptr)};
    zconfig_put(tree.get(), "http/port", "1"); // without one the whole section is refused
    zconfig_put(tree.get(), std::string{key.path}.c_str(), text.c_str());
    std::optional<http_rules> rules;
    if (!read_http_rules(tree.get(), rules))
        return refused();
    return taken(key.type == key_type::port ? std::to_string(rules->port) : rules->address);
}

// A key of the doors with rules: win and terminal.
static key_reading read_door_key(const config_key& key, const std::string& text)
{
    door_rules rules;
    const zconfig_ptr tree = tree_of(key, text);
    if (!read_door_rules(tree.get(), std::string{key.door}.c_str(), rules))
        return refused();
    if (key.type == key_type::address)
        return taken(rules.address);
    if (key.type == key_type::networks)
        return taken(in_words(text));
    return taken(std::to_string(rules.most != 0 ? rules.most : rules.most_of_one_address));
}

static key_reading read_discovery_address(const config_key& key, const std::string& text)
{
    std::string address = "*";
    const zconfig_ptr tree = tree_of(key, text);
    return read_door_address(tree.get(), "discovery", address) ? taken(address) : refused();
}

static key_reading read_backlog(const config_key& key, const std::string& text)
{
    const auto seen = see_number(text);
    const bool is_taken = seen && seen->number >= key.lowest && seen->number <= key.highest;
    return is_taken ? taken(std::to_string(seen->number)) : unreadable(key);
}

static key_reading read_number(const config_key& key, const std::string& text)
{
    if (key.is_cut)
        return read_cut_number(key, text);
    if (key.door == "http")
        return read_http_key(key, text);
    return key.misread == key_misread::ignored ? read_backlog(key, text) : read_door_key(key, text);
}

static key_reading read_address_key(const config_key& key, const std::string& text)
{
    if (key.door == "http")
        return read_http_key(key, text);
    return key.door == "discovery" ? read_discovery_address(key, text) : read_door_key(key, text);
}

// Of the tap, which the daemon binds; it only connects to others, and takes whatever is written.
static key_reading read_endpoint(const config_key& key, const std::string& text)
{
    const zconfig_ptr tree = tree_of(key, text);
    return tap_socket{}.read(tree.get()) ? taken(text) : refused();
}

key_reading read_key(const config_key& key, const std::string& text)
{
    switch (key.type) {
    case key_type::port:
    case key_type::number:
        return read_number(key, text);
    case key_type::boolean:
        return read_boolean(key, text);
    case key_type::address:
        return read_address_key(key, text);
    case key_type::networks:
        return read_door_key(key, text);
    case key_type::macs:
        return parse_macs(text) ? taken(in_words(text)) : refused();
    case key_type::url_prefixes:
        return words_of(text).empty() ? refused() : taken(in_words(text));
    case key_type::endpoint:
        return read_endpoint(key, text);
    case key_type::path:
    case key_type::file:
    case key_type::host:
        break;
    }
    return taken(text);
}

std::optional<seen_number> see_number(const std::string& text)
{
    char* end = nullptr;
    const long number = strtol(text.c_str(), &end, 0);
    if (end == text.c_str())
        return std::nullopt;
    return seen_number{number, end};
}

// --- the whole file

static key_reading preset_of(const config_key& key)
{
    return taken(std::string{key.preset});
}

effective_configuration::effective_configuration(const zpl_file& file) : m_file(file)
{
    for (const config_key& key : config_keys()) {
        const zpl_item* item = file.root.locate(key.path);
        m_keys.push_back({&key, item, item ? read_key(key, item->value) : preset_of(key)});
        if (m_keys.back().reading.fate == key_fate::ignored)
            m_keys.back().reading.value = key.preset;
    }
}

const effective_key& effective_configuration::at(std::string_view path) const
{
    for (const effective_key& key : m_keys)
        if (key.key->path == path)
            return key;
    assert(false && "no key of the table");
    return m_keys.front();
}

int64_t effective_configuration::number(std::string_view path) const
{
    return std::strtol(text(path).c_str(), nullptr, 10);
}

size_t effective_configuration::line(std::string_view path) const
{
    const effective_key& key = at(path);
    if (key.item)
        return key.item->line;
    const zpl_item* section = key.key->section().empty() ? nullptr : m_file.root.locate(key.key->section());
    return section ? section->line : 0;
}

} // namespace rtls::check
