#include "decode/layout_text.h"

#include "impl/layouts.h"

#include <array>

namespace rtls::decode {

static std::string_view order_text(byte_order order)
{
    static constexpr std::array<std::string_view, 4> names = {"", "little", "big", "by role"};
    return names[static_cast<size_t>(order)];
}

static std::string kind_text(const part& p)
{
    switch (p.as) {
    case form::number:
        return "number";
    case form::signed_number:
        return "signed number";
    case form::hex_number:
        return "hex, the highest byte first";
    case form::ip:
        return "address";
    case form::role:
        return "a name (or number), and `node_state`: the high four bits where they are";
    case form::length:
        return p.beside == 0 ? "number: counts the next field without bytes of its own"
                             : "number: counts the next field but " + std::to_string(p.beside) + " bytes";
    case form::text:
        return "text; `" + std::string{p.name} + "_bytes` as hex when it is not printable";
    case form::message:
        return "message";
    case form::body:
        return "a name (or number) of 2 bytes, big, and its body, or `data`";
    case form::entries:
        return "list up to the end";
    case form::rest:
        return "hex of what nobody reads; not there when there is nothing";
    default:
        return "hex";
    }
}

static std::string row_text(std::string_view message, const std::string& name, const part& p)
{
    const bool has_width = p.width > 0;
    return "| " + std::string{message} + " | `" + name + "` | " +
           (p.at == anywhere ? "" : std::to_string(p.at)) + " | " +
           (has_width ? std::to_string(p.width) : "") + " | " +
           std::string{has_width && p.width > 1 ? order_text(p.order) : ""} + " | " + std::string{p.unit} +
           " | " + kind_text(p) + " |\n";
}

static std::string parts_text(std::string first, std::span<const part> parts)
{
    std::string text;
    for (const part& p : parts) {
        if (p.as == form::optional) {
            first += "from here on where " + std::to_string(p.width) + " bytes are left";
            continue;
        }
        text += row_text(first, std::string{p.name}, p);
        first.clear();
        for (const part& of_entry : p.entry)
            text += row_text("", std::string{p.name} + "[]." + std::string{of_entry.name}, of_entry);
    }
    return text;
}

static constexpr char table_head[] =
    "| message | field | offset | bytes | order | unit | as |\n|---|---|---|---|---|---|---|\n";

static std::string type_text(const message_set& set, const message_layout& row)
{
    if (set.type_order == byte_order::none)
        return "`" + std::string{row.kind} + "`";
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text = "`" + std::string{row.kind} + "` 0x";
    for (int shift = 12; shift >= 0; shift -= 4)
        text += digits[row.type >> shift & 0x0F];
    for (const auto& [bit, name] : type_flags)
        if ((row.flags & bit) != 0)
            text += ", `" + std::string{name} + "`";
    return text;
}

static void add_set(const std::string& title, const message_set& set, std::string& text);

// The messages within that are not this set itself.
static void add_inner_sets(const message_set& set, std::string& text)
{
    const message_set* last = nullptr;
    for (const message_layout& row : set.rows)
        for (const part& p : row.parts)
            if (p.as == form::message && p.messages != last) {
                last = p.messages;
                add_set("Within `" + std::string{row.kind} + "`:", *p.messages, text);
            }
}

static void add_set(const std::string& title, const message_set& set, std::string& text)
{
    text += title + (title.empty() ? "" : "\n\n") + table_head;
    text += parts_text("in front of each", set.head);
    for (const message_layout& row : set.rows)
        text += parts_text(type_text(set, row), row.parts);
    text += '\n';
    add_inner_sets(set, text);
}

std::string layout_text(direction way)
{
    std::string text;
    add_set("", messages_of(way), text);
    return text;
}

std::string body_text(direction way)
{
    std::string text = table_head;
    for (const body_layout& row : bodies_of(way)) {
        const std::string first = "`" + std::string{row.name} + "` " + std::to_string(row.code);
        text += row.parts.empty() ? "| " + first + " | | | | | | |\n" : parts_text(first, row.parts);
    }
    return text;
}

} // namespace rtls::decode
