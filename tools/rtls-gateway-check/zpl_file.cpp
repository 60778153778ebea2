#include "rtls-gateway-check/zpl_file.h"

#include <algorithm>

namespace rtls::check {

static constexpr size_t indent_step = 4;
static constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

// The characters of the "C" locale, whatever the environment says: the daemon sets none.
static bool is_blank(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

static bool is_name_character(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           (c != '\0' && std::string_view{"$-_@.&+/"}.find(c) != std::string_view::npos);
}

static std::string_view without_end_blanks(std::string_view text)
{
    while (!text.empty() && is_blank(text.back()))
        text.remove_suffix(1);
    return text;
}

static std::string_view without_begin_blanks(std::string_view text)
{
    while (!text.empty() && is_blank(text.front()))
        text.remove_prefix(1);
    return text;
}

static bool is_nothing_or_comment(std::string_view text)
{
    text = without_begin_blanks(text);
    return text.empty() || text.front() == '#';
}

const zpl_item* zpl_item::child(std::string_view wanted) const noexcept
{
    const auto found = std::ranges::find(children, wanted, &zpl_item::name);
    return found == children.end() ? nullptr : &*found;
}

const zpl_item* zpl_item::locate(std::string_view path) const noexcept
{
    const zpl_item* item = this;
    while (item && !path.empty()) {
        const size_t slash = path.find('/');
        item = item->child(path.substr(0, slash));
        path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
    }
    return item;
}

namespace {

class zpl_parser {
public:
    zpl_file parse(std::string_view text);

private:
    // An item that may still get children, and how far its line was indented.
    struct open_item {
        zpl_item* item;
        size_t indent;
    };

    void read_line(std::string_view line);
    void read_item(std::string_view text, size_t indent);
    void read_name(std::string_view& text, zpl_item& item);
    void read_value(std::string_view text, zpl_item& item);
    void read_quoted(std::string_view text, zpl_item& item);
    void read_unquoted(std::string_view text, zpl_item& item);
    void place(zpl_item item, size_t indent);
    size_t read_indent(std::string_view& text);
    void fault(std::string text, std::string remedy);

    zpl_file m_file;
    std::vector<open_item> m_open; // the item of the line before, and what it is in
    size_t m_line = 0;
};

} // namespace

void zpl_parser::fault(std::string text, std::string remedy)
{
    m_file.faults.push_back({m_line, std::move(text), std::move(remedy)});
}

// The depth of a line in blanks. Takes the indentation away. What is indented otherwise is most likely meant to be
// in the section at hand.
size_t zpl_parser::read_indent(std::string_view& text)
{
    const size_t blanks = std::min(text.find_first_not_of(' '), text.size());
    text.remove_prefix(blanks);
    const std::string_view rest = without_begin_blanks(text);
    const bool has_others = rest.size() != text.size() && !is_nothing_or_comment(rest);
    text = rest;
    if (blanks % indent_step == 0 && !has_others)
        return blanks;
    fault(has_others ? "indented by a tab"
                     : "indented by " + std::to_string(blanks) + (blanks == 1 ? " blank" : " blanks"),
          "indent by four blanks a level");
    return indent_step;
}

void zpl_parser::read_name(std::string_view& text, zpl_item& item)
{
    const auto* const end = std::ranges::find_if_not(text, is_name_character);
    item.name.assign(text.begin(), end);
    text.remove_prefix(item.name.size());
    if (item.name.empty())
        fault("no name stands before \"" + std::string{text} + "\"", "write \"name = value\"");
    else if (item.name.front() == '/' || item.name.back() == '/')
        fault("the name \"" + item.name + "\" begins or ends with a slash", "write the name without it");
}

void zpl_parser::read_quoted(std::string_view text, zpl_item& item)
{
    const char quote = text.front();
    const size_t end = text.find(quote, 1);
    item.value = text.substr(1, end == std::string_view::npos ? end : end - 1);
    if (end == std::string_view::npos)
        fault(std::string{"the quotation mark "} + quote + " is not closed",
              std::string{"put another "} + quote + " behind the value");
    else if (!is_nothing_or_comment(text.substr(end + 1)))
        fault("\"" + std::string{without_begin_blanks(text.substr(end + 1))} +
                  "\" stands behind the quoted value",
              "leave it away, or make it a comment with #");
}

void zpl_parser::read_unquoted(std::string_view text, zpl_item& item)
{
    const size_t sign = text.find('#');
    const std::string_view before = text.substr(0, sign);
    const std::string_view value = without_end_blanks(before);
    item.value = value;
    if (sign != std::string_view::npos && !value.empty() && value.size() == before.size())
        item.oddity = zpl_oddity::cut_at_sign;
}

// What follows the name.
void zpl_parser::read_value(std::string_view text, zpl_item& item)
{
    const std::string_view from_sign = without_begin_blanks(text);
    if (is_nothing_or_comment(from_sign))
        return;
    const bool has_value = from_sign.front() == '=';
    if (!has_value && !item.name.empty())
        fault("between the name and its value there is no =", "write \"" + item.name + " = value\"");
    const std::string_view behind = from_sign.substr(has_value || from_sign.front() == ':' ? 1 : 0);
    const std::string_view value = without_begin_blanks(behind);
    if (!value.empty() && (value.front() == '"' || value.front() == '\''))
        read_quoted(value, item);
    else if (!value.empty() && value.front() == '#' && value.size() != behind.size()) {
        item.value = value; // the library looks for a comment behind the first character only
        item.oddity = zpl_oddity::begins_with_sign;
    } else
        read_unquoted(value, item);
}

void zpl_parser::place(zpl_item item, size_t indent)
{
    while (m_open.size() > 1 && m_open.back().indent >= indent + indent_step)
        m_open.pop_back();
    const bool is_told = !m_file.faults.empty() && m_file.faults.back().line == m_line;
    if (indent > m_open.back().indent && !is_told)
        fault("indented deeper than one level below \"" +
                  (m_open.size() > 1 ? m_open.back().item->name : std::string{"the file"}) + "\"",
              "indent by four blanks a level");
    std::vector<zpl_item>& siblings = m_open.back().item->children;
    siblings.push_back(std::move(item));
    m_open.push_back({&siblings.back(), indent + indent_step});
}

void zpl_parser::read_item(std::string_view text, size_t indent)
{
    zpl_item item;
    item.line = m_line;
    read_name(text, item);
    read_value(text, item);
    if (!item.name.empty())
        place(std::move(item), indent);
}

void zpl_parser::read_line(std::string_view line)
{
    const size_t zero = line.find('\0');
    std::string_view text = without_end_blanks(line.substr(0, zero));
    const size_t indent = read_indent(text);
    if (is_nothing_or_comment(text))
        return;
    read_item(text, indent);
    if (zero != std::string_view::npos && m_open.back().item->line == m_line)
        m_open.back().item->oddity = zpl_oddity::cut_at_zero;
}

zpl_file zpl_parser::parse(std::string_view text)
{
    m_open.push_back({&m_file.root, 0});
    if (text.starts_with(byte_order_mark)) {
        m_line = 1;
        fault("a byte-order mark stands before the text", "save the file as UTF-8 without it");
        text.remove_prefix(byte_order_mark.size());
    }
    m_line = 0;
    while (!text.empty()) {
        ++m_line;
        const size_t end = text.find('\n');
        read_line(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return std::move(m_file);
}

zpl_file parse_zpl(std::string_view text)
{
    return zpl_parser{}.parse(text);
}

} // namespace rtls::check
