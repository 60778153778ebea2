#include "rtls-tail/condition.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace tail {

using nlohmann::ordered_json;

// Parentheses, and lines, within each other: far more than anybody writes, far less than the stack has.
static constexpr unsigned nesting_limit = 100;

std::string lower(std::string_view text)
{
    std::string made{text};
    std::ranges::transform(made, made.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return made;
}

// --- Values

namespace {

enum class relation : uint8_t { equal, unequal, less, at_most, more, at_least };

using value_test = std::function<bool(const ordered_json& value)>;
using field_path = std::span<const std::string>;

} // namespace

// Those of one kind have an order, flags and texts too.
static std::partial_ordering order_of(const ordered_json& value, const ordered_json& wanted)
{
    if (value.is_string() && wanted.is_string())
        return lower(value.get_ref<const std::string&>()) <=> wanted.get_ref<const std::string&>();
    const bool is_comparable =
        (value.is_number() && wanted.is_number()) || (value.is_boolean() && wanted.is_boolean());
    if (!is_comparable)
        return std::partial_ordering::unordered;
    return value < wanted   ? std::partial_ordering::less
           : wanted < value ? std::partial_ordering::greater
                            : std::partial_ordering::equivalent;
}

static bool is_so(relation how, std::partial_ordering order)
{
    switch (how) {
    case relation::less:
        return std::is_lt(order);
    case relation::at_most:
        return std::is_lteq(order);
    case relation::more:
        return std::is_gt(order);
    case relation::at_least:
        return std::is_gteq(order);
    case relation::equal:
    case relation::unequal:
        break;
    }
    return std::is_eq(order);
}

// Whether one of the values that the path leads to from here is so.
static bool is_one_at(const ordered_json& from, field_path path, const value_test& is_wanted)
{
    if (from.is_array())
        return std::ranges::any_of(from, [&](const ordered_json& entry) {
            return !entry.is_array() && is_one_at(entry, path, is_wanted);
        });
    if (path.empty())
        return is_wanted(from);
    const auto found = from.find(path.front()); // the end where it is no object
    return found != from.end() && is_one_at(*found, path.subspan(1), is_wanted);
}

// From here, or from what stands within it.
static bool is_one_within(const ordered_json& from, field_path path, const value_test& is_wanted,
                          unsigned depth = 0)
{
    if (is_one_at(from, path, is_wanted))
        return true;
    return depth < nesting_limit && from.is_structured() &&
           std::ranges::any_of(from, [&](const ordered_json& inner) {
               return is_one_within(inner, path, is_wanted, depth + 1);
           });
}

static condition named_alone(std::vector<std::string> path)
{
    return [path = std::move(path)](const ordered_json& line) {
        return is_one_within(
            line, path, [](const ordered_json& value) { return !value.is_boolean() || value.get<bool>(); });
    };
}

static condition compared(std::vector<std::string> path, relation how, ordered_json wanted)
{
    value_test is_wanted = [how, wanted = std::move(wanted)](const ordered_json& value) {
        return is_so(how, order_of(value, wanted));
    };
    if (how != relation::unequal)
        return [path = std::move(path), is_wanted = std::move(is_wanted)](const ordered_json& line) {
            return is_one_within(line, path, is_wanted);
        };
    return [path = std::move(path), is_equal = std::move(is_wanted)](const ordered_json& line) {
        return is_one_within(line, path, [](const ordered_json&) { return true; }) &&
               !is_one_within(line, path, is_equal);
    };
}

// --- Words

namespace {

enum class word_kind : uint8_t { end, name, value, symbol };

struct word {
    word_kind kind = word_kind::end;
    size_t at = 0; // its first byte
    std::string text;
    ordered_json value = nullptr;
};

class word_reader {
public:
    explicit word_reader(std::string_view text) : m_text(text) {}

    word next();
    [[noreturn]] void fail(size_t at, const std::string& why) const;

private:
    std::string_view take(size_t size);
    word name(size_t at);
    word number(size_t at);
    word quoted(size_t at);
    word symbol(size_t at);

    std::string_view m_text;
    size_t m_at = 0;
};

} // namespace

static constexpr std::string_view first_characters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_";
static constexpr std::string_view name_characters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_0123456789.";
static constexpr std::string_view digit_characters = "0123456789";
static constexpr std::array<std::string_view, 8> known_symbols{"==", "!=", "<=", ">=", "<", ">", "(", ")"};
static constexpr std::array<std::pair<std::string_view, relation>, 6> known_relations{
    {{"==", relation::equal},
     {"!=", relation::unequal},
     {"<", relation::less},
     {"<=", relation::at_most},
     {">", relation::more},
     {">=", relation::at_least}}};

// Places are told as people count: characters from 1 on.
void word_reader::fail(size_t at, const std::string& why) const
{
    const auto before =
        std::ranges::count_if(m_text.substr(0, at), [](char c) { return (c & 0xC0) != 0x80; });
    throw condition_error(fmt::format("character {}: {}", before + 1, why));
}

std::string_view word_reader::take(size_t size)
{
    const std::string_view taken = m_text.substr(m_at, size);
    m_at += taken.size();
    return taken;
}

word word_reader::next()
{
    m_at = std::min(m_text.find_first_not_of(" \t\r\n", m_at), m_text.size());
    const size_t at = m_at;
    if (at == m_text.size())
        return {word_kind::end, at, "", nullptr};
    const char first = m_text[at];
    if (first_characters.find(first) != std::string_view::npos)
        return name(at);
    if (first == '-' || digit_characters.find(first) != std::string_view::npos)
        return number(at);
    return first == '"' || first == '\'' ? quoted(at) : symbol(at);
}

word word_reader::name(size_t at)
{
    const size_t end = m_text.find_first_not_of(name_characters, at);
    const std::string_view text = take(end == std::string_view::npos ? end : end - at);
    if (text == "true" || text == "false")
        return {word_kind::value, at, std::string{text}, text == "true"};
    if (text.ends_with('.') || text.find("..") != std::string_view::npos)
        fail(at, fmt::format("\"{}\" is no name: a dot stands between two", text));
    return {word_kind::name, at, std::string{text}, nullptr};
}

// Decimal as in JSON, which is its own judge, or hex.
static ordered_json number_value(std::string_view text)
{
    if (!text.starts_with("0x"))
        return ordered_json::parse(text, nullptr, false);
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data() + 2, text.data() + text.size(), value, 16);
    return error == std::errc{} && end == text.data() + text.size() ? ordered_json(value) : ordered_json{};
}

word word_reader::number(size_t at)
{
    const size_t end = m_text.find_first_not_of(name_characters, at + 1);
    const std::string_view text = take(end == std::string_view::npos ? end : end - at);
    ordered_json value = number_value(text);
    if (!value.is_number())
        fail(at, fmt::format("\"{}\" is no number; texts stand in quotes", text));
    return {word_kind::value, at, std::string{text}, std::move(value)};
}

word word_reader::quoted(size_t at)
{
    const char quote = m_text[m_at++];
    std::string text;
    while (m_at < m_text.size() && m_text[m_at] != quote) {
        if (m_text[m_at] == '\\' && m_at + 1 < m_text.size())
            ++m_at;
        text += m_text[m_at++];
    }
    if (m_at == m_text.size())
        fail(at, "the quotes of this text are not closed");
    ++m_at;
    return {word_kind::value, at, text, lower(text)};
}

word word_reader::symbol(size_t at)
{
    for (const std::string_view one : known_symbols)
        if (m_text.substr(at).starts_with(one)) {
            take(one.size());
            return {word_kind::symbol, at, std::string{one}, nullptr};
        }
    fail(at, "this means nothing here; there are ==, !=, <, <=, >, >=, and, or, not, ( and )");
}

// --- Conditions

namespace {

class condition_parser {
public:
    explicit condition_parser(std::string_view text) : m_words(text), m_next(m_words.next()) {}

    condition whole();

private:
    word take();
    bool takes(word_kind kind, std::string_view text);
    [[noreturn]] void fail(const std::string& wanted) const;
    condition joined(std::string_view by, condition (condition_parser::*part)(),
                     bool (*judge)(const std::vector<condition>&, const ordered_json&));
    condition any();
    condition all();
    condition one();
    condition in_parentheses();
    condition about_field();
    std::vector<std::string> path();
    std::optional<relation> comparing();

    word_reader m_words;
    word m_next;
    unsigned m_depth = 0;
};

} // namespace

word condition_parser::take()
{
    return std::exchange(m_next, m_words.next());
}

bool condition_parser::takes(word_kind kind, std::string_view text)
{
    const bool is_it = m_next.kind == kind && m_next.text == text;
    if (is_it)
        take();
    return is_it;
}

void condition_parser::fail(const std::string& wanted) const
{
    m_words.fail(m_next.at, wanted + " is wanted");
}

condition condition_parser::whole()
{
    condition all_of_it = any();
    if (m_next.kind != word_kind::end)
        fail("\"and\", \"or\" or the end");
    return all_of_it;
}

condition condition_parser::joined(std::string_view by, condition (condition_parser::*part)(),
                                   bool (*judge)(const std::vector<condition>&, const ordered_json&))
{
    std::vector<condition> parts{(this->*part)()};
    while (takes(word_kind::name, by))
        parts.push_back((this->*part)());
    if (parts.size() == 1)
        return std::move(parts.front());
    return [parts = std::move(parts), judge](const ordered_json& line) { return judge(parts, line); };
}

condition condition_parser::any()
{
    return joined("or", &condition_parser::all,
                  [](const std::vector<condition>& parts, const ordered_json& line) {
                      return std::ranges::any_of(parts, [&](const condition& part) { return part(line); });
                  });
}

condition condition_parser::all()
{
    return joined("and", &condition_parser::one,
                  [](const std::vector<condition>& parts, const ordered_json& line) {
                      return std::ranges::all_of(parts, [&](const condition& part) { return part(line); });
                  });
}

condition condition_parser::one()
{
    if (m_depth == nesting_limit)
        m_words.fail(m_next.at, "too much stands within each other");
    ++m_depth;
    condition it;
    if (takes(word_kind::name, "not"))
        it = [inner = one()](const ordered_json& line) { return !inner(line); };
    else
        it = takes(word_kind::symbol, "(") ? in_parentheses() : about_field();
    --m_depth;
    return it;
}

condition condition_parser::in_parentheses()
{
    condition inner = any();
    if (!takes(word_kind::symbol, ")"))
        fail("\"and\", \"or\" or \")\"");
    return inner;
}

std::vector<std::string> condition_parser::path()
{
    if (m_next.kind != word_kind::name || m_next.text == "and" || m_next.text == "or")
        fail("the name of a field, \"not\" or \"(\"");
    const std::string name = take().text;
    std::vector<std::string> parts;
    for (size_t begin = 0; begin <= name.size();) {
        const size_t end = std::min(name.find('.', begin), name.size());
        parts.push_back(name.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

std::optional<relation> condition_parser::comparing()
{
    for (const auto& [symbol, how] : known_relations)
        if (takes(word_kind::symbol, symbol))
            return how;
    return std::nullopt;
}

condition condition_parser::about_field()
{
    std::vector<std::string> name = path();
    const std::optional<relation> how = comparing();
    if (!how)
        return named_alone(std::move(name));
    if (m_next.kind != word_kind::value)
        fail("a number, a text in quotes, true or false");
    return compared(std::move(name), *how, take().value);
}

condition parse_condition(std::string_view text)
{
    return condition_parser{text}.whole();
}

} // namespace tail
