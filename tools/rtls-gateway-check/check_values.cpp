// Each value for itself: what the daemon makes of it that nobody would expect.
#include "base/prefix_list.h"
#include "rtls-gateway-check/check.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>

namespace rtls::check {

static bool is_nothing_but_blanks(std::string_view text)
{
    return text.find_first_not_of(" \t") == std::string_view::npos;
}

static std::string expected_number(const config_key& key)
{
    if (key.highest == LONG_MAX || key.highest == INT_MAX)
        return fmt::format("a number from {} on", key.lowest);
    return fmt::format("a number from {} to {}", key.lowest, key.highest);
}

// --- what the library of configurations makes of a line

static void check_oddity(inspection& at, const effective_key& one)
{
    const std::string& value = one.item->value;
    switch (one.item->oddity) {
    case zpl_oddity::none:
        return;
    case zpl_oddity::begins_with_sign:
        at.add(severity::harm, "comment", one.key->path,
               fmt::format("directly behind the = a # begins no comment: the value is \"{}\"", value),
               "put the comment into a line of its own, and a value or \"\" behind the =");
        return;
    case zpl_oddity::cut_at_sign:
        at.add(severity::warning, "comment", one.key->path,
               fmt::format("the # ends the value: it is \"{}\"", value),
               "put the value in quotation marks if the # is part of it, or a blank before the #");
        return;
    case zpl_oddity::cut_at_zero:
        at.add(severity::harm, "comment", one.key->path,
               fmt::format("the line has a zero byte, which ends the value: it is \"{}\"", value),
               "save the file as plain text");
        return;
    }
}

// --- numbers

static void add_no_number(inspection& at, const effective_key& one)
{
    const config_key& key = *one.key;
    const bool is_refused = one.reading.fate == key_fate::refused;
    at.add(is_refused ? severity::refused : severity::harm, "number", key.path,
           fmt::format("\"{}\" is not {}{}", one.item->value, expected_number(key),
                       is_refused ? "" : fmt::format(": {} is taken", key.preset)),
           fmt::format("write {}, and nothing behind it", expected_number(key)));
}

static void check_cut(inspection& at, const effective_key& one, const seen_number& seen)
{
    if (std::to_string(seen.number) != one.reading.value)
        at.add(
            severity::harm, "cut", one.key->path,
            fmt::format("{} does not fit into 16 bits: the daemon takes {}", seen.number, one.reading.value),
            fmt::format("write {}", expected_number(*one.key)));
    if (one.key->type == key_type::port && one.reading.value == "0")
        at.add(severity::harm, "port", one.key->path,
               one.key->door.empty() ? "at port 0 no server can be reached"
                                     : "with port 0 the system chooses a port that nobody knows",
               fmt::format("write {}", expected_number(*one.key)));
}

// "017", but neither "0" nor "0x1F".
static bool is_octal(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(" \t+-"), text.size()));
    return text.size() > 1 && text[0] == '0' && text[1] >= '0' && text[1] <= '9';
}

static void check_number(inspection& at, const effective_key& one)
{
    const auto seen = see_number(one.item->value);
    if (!one.is_taken() || !seen)
        return add_no_number(at, one);
    if (!is_nothing_but_blanks(seen->rest))
        at.add(
            severity::harm, "trailing", one.key->path,
            fmt::format("\"{}\" behind the number is left out: {} is taken", seen->rest, one.reading.value),
            fmt::format("write {}, and nothing behind it", expected_number(*one.key)));
    if (is_octal(one.item->value))
        at.add(
            severity::warning, "octal", one.key->path,
            fmt::format("\"{}\" begins with 0 and is octal: {} is taken", one.item->value, one.reading.value),
            "leave the 0 away if the number is meant to be decimal");
    if (one.key->is_cut)
        check_cut(at, one, *seen);
}

// --- yes and no

static bool is_clear(std::string word)
{
    static constexpr std::array<std::string_view, 10> words{"yes", "y", "true",  "t", "1",
                                                            "no",  "n", "false", "f", "0"};
    std::ranges::transform(word, word.begin(), [](unsigned char c) { return std::tolower(c); });
    return std::ranges::find(words, word) != words.end();
}

static void check_boolean(inspection& at, const effective_key& one)
{
    const std::string& text = one.item->value;
    if (!one.is_taken()) {
        const bool is_refused = one.reading.fate == key_fate::refused;
        at.add(is_refused ? severity::refused : severity::harm, "boolean", one.key->path,
               fmt::format("\"{}\" counts neither as yes nor as no{}", text,
                           is_refused ? "" : fmt::format(": it stays {}", one.key->preset)),
               "write yes or no");
    } else if (!is_clear(text)) {
        at.add(severity::warning, "boolean", one.key->path,
               fmt::format("only the first character counts: \"{}\" is {}", text, one.reading.value),
               "write yes or no");
    }
}

// --- addresses and lists

static void check_address(inspection& at, const effective_key& one)
{
    if (!one.is_taken())
        at.add(severity::refused, "address", one.key->path,
               fmt::format("\"{}\" is no IPv4 address", one.item->value),
               "write one of this host's addresses as four numbers, such as 127.0.0.1, or * for all of them");
}

static void check_list(inspection& at, const effective_key& one)
{
    if (one.is_taken())
        return;
    const bool is_network = one.key->type == key_type::networks;
    const auto is_readable = [is_network](const std::string& word) {
        return (is_network ? parse_networks(word) : parse_macs(word)).has_value();
    };
    const std::vector<std::string> words = words_of(one.item->value);
    const auto wrong = std::ranges::find_if_not(words, is_readable);
    const char* what = is_network ? "IPv4 network" : "MAC";
    at.add(severity::refused, "list", one.key->path,
           wrong != words.end() ? fmt::format("\"{}\" is no {}", *wrong, what)
                                : fmt::format("the list has no {}", what),
           fmt::format("write it as in {}, or take the key out", one.key->example));
}

static void check_prefix(inspection& at, const effective_key& one, std::string_view prefix)
{
    static constexpr std::string_view host_begin = "://";
    const size_t host = prefix.find(host_begin);
    const std::string_view scheme = prefix.substr(0, host);
    if (scheme != "http" && scheme != "https" && scheme != "file")
        at.add(severity::harm, "url", one.key->path,
               fmt::format("no URL that is allowed begins with \"{}\"", prefix),
               fmt::format("begin it with http://, https:// or file://, as in {}", one.key->example));
    else if (host != std::string_view::npos && scheme != "file" &&
             prefix.find('/', host + host_begin.size()) == std::string_view::npos)
        at.add(severity::warning, "url", one.key->path,
               fmt::format("\"{}\" is also the beginning of \"{}.elsewhere/\"", prefix, prefix),
               "end it with a slash");
}

static void check_prefixes(inspection& at, const effective_key& one)
{
    if (!one.is_taken())
        at.add(severity::refused, "list", one.key->path, "the list has no URL",
               fmt::format("write it as in {}, or take the key out", one.key->example));
    for (const std::string& prefix : words_of(one.item->value))
        check_prefix(at, one, prefix);
}

static void check_value(inspection& at, const effective_key& one)
{
    switch (one.key->type) {
    case key_type::port:
    case key_type::number:
        return check_number(at, one);
    case key_type::boolean:
        return check_boolean(at, one);
    case key_type::address:
        return check_address(at, one);
    case key_type::networks:
    case key_type::macs:
        return check_list(at, one);
    case key_type::url_prefixes:
        return check_prefixes(at, one);
    case key_type::path:
    case key_type::file:
    case key_type::host:
    case key_type::endpoint:
        return; // together with what they refer to
    }
}

void check_values(inspection& at)
{
    for (const effective_key& one : at.effective.keys()) {
        if (!one.item)
            continue;
        check_oddity(at, one);
        check_value(at, one);
    }
}

} // namespace rtls::check
