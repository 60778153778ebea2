#include "impl/reading.h"

#include "decode/hex_bytes.h"

#include <arpa/inet.h>

#include <algorithm>
#include <optional>

namespace rtls::decode {

namespace {

// Walks the parts of one message, body or entry; `bytes` are all there are for it.
class reader {
public:
    explicit reader(bytes_view bytes) : m_rest(bytes) {}

    bool read(std::span<const part> parts, group& out);
    bool read_to_the_end(std::span<const part> parts, group& out);
    const std::string& reason() const { return m_reason; }

private:
    bool read(const part& p, group& out);
    bool fixed(const part& p, bytes_view bytes, group& out);
    bool take_number(const part& p, bytes_view bytes, group& out);
    bool varying(const part& p, bytes_view bytes, group& out);
    bool take_message(const part& p, bytes_view bytes, group& out);
    bool take_body(const part& p, bytes_view bytes, group& out);
    bool take_entries(const part& p, group& out);
    bytes_view take(size_t count);
    bool fail(std::string why);
    byte_order order_of(const part& p) const;

    bytes_view m_rest;
    std::optional<size_t> m_counted; // by a length, for the next part without a width
    bool m_role_is_little_endian = false;
    std::string m_reason;
};

bool reader::fail(std::string why)
{
    m_reason = std::move(why);
    return false;
}

bytes_view reader::take(size_t count)
{
    const bytes_view taken = m_rest.first(count);
    m_rest = m_rest.subspan(count);
    return taken;
}

byte_order reader::order_of(const part& p) const
{
    if (p.order != byte_order::by_role)
        return p.order;
    return m_role_is_little_endian ? byte_order::little : byte_order::big;
}

} // namespace

// With the highest byte first.
static std::vector<uint8_t> in_network_order(bytes_view bytes, byte_order order)
{
    std::vector<uint8_t> ordered{bytes.begin(), bytes.end()};
    if (order == byte_order::little)
        std::ranges::reverse(ordered);
    return ordered;
}

static int64_t number_of(bytes_view bytes, byte_order order, bool is_signed)
{
    uint64_t bits = 0;
    for (const uint8_t byte : in_network_order(bytes, order))
        bits = bits << 8 | byte;
    const unsigned unused_bits = 64 - 8 * static_cast<unsigned>(bytes.size());
    if (is_signed)
        return static_cast<int64_t>(bits << unused_bits) >> unused_bits;
    return static_cast<int64_t>(bits);
}

static std::string ip_text(bytes_view bytes)
{
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(bytes.size() == 4 ? AF_INET : AF_INET6, bytes.data(), text, sizeof text);
    return text;
}

static value name_or_number(std::string_view name, int64_t number)
{
    return name.empty() ? value{number} : value{std::string{name}};
}

static bool is_printable(bytes_view bytes)
{
    return std::ranges::all_of(bytes, [](uint8_t byte) { return byte >= 0x20 && byte < 0x7F; });
}

static void add(group& out, std::string_view name, value is)
{
    out.push_back({std::string{name}, std::move(is)});
}

bool reader::take_number(const part& p, bytes_view bytes, group& out)
{
    const int64_t number = number_of(bytes, order_of(p), p.as == form::signed_number);
    if (number < p.least || number > p.most)
        return fail(std::string{p.name} + " is " + std::to_string(number));
    if (p.as == form::length)
        m_counted = static_cast<size_t>(number) + p.beside;
    add(out, p.name, number);
    return true;
}

bool reader::fixed(const part& p, bytes_view bytes, group& out)
{
    switch (p.as) {
    case form::hex_number:
        add(out, p.name, hex_of(in_network_order(bytes, order_of(p))));
        return true;
    case form::hex:
        add(out, p.name, hex_of(bytes));
        return true;
    case form::ip:
        add(out, p.name, ip_text(bytes));
        return true;
    case form::role:
        m_role_is_little_endian = (bytes[0] & role_little_endian) != 0;
        add(out, p.name, name_or_number(role_name(bytes[0] & role_mask), bytes[0] & role_mask));
        add(out, "node_state", int64_t{bytes[0] & ~role_mask & 0xFF});
        return true;
    default:
        return take_number(p, bytes, out);
    }
}

bool reader::take_message(const part& p, bytes_view bytes, group& out)
{
    std::string kind;
    std::string reason;
    group fields;
    if (!read_message(*p.messages, bytes, kind, fields, reason))
        return fail(std::string{p.name} + ": " + reason);
    fields.insert(fields.begin(), field{"kind", kind});
    add(out, p.name, std::move(fields));
    return true;
}

// What no row fits keeps its bytes: the gateway passes it on unread.
bool reader::take_body(const part& p, bytes_view bytes, group& out)
{
    if (bytes.size() < 2) {
        add(out, "data", hex_of(bytes));
        return true;
    }
    const uint16_t code = load_be16(bytes, 0);
    add(out, p.name, name_or_number(sub_command_name(code), code));
    const bytes_view rest = bytes.subspan(2);
    for (const body_layout& row : p.bodies) {
        group fields;
        if (row.code != code || !reader{rest}.read_to_the_end(row.parts, fields))
            continue;
        std::ranges::move(fields, std::back_inserter(out));
        return true;
    }
    add(out, "data", hex_of(rest));
    return true;
}

bool reader::take_entries(const part& p, group& out)
{
    const part& last = p.entry.back();
    const size_t size = last.at + last.width;
    std::vector<group> list;
    while (m_rest.size() >= size) {
        group entry;
        if (!read(p.entry, entry))
            return false;
        list.push_back(std::move(entry));
    }
    if (list.empty())
        return fail(std::string{p.name} + " has no entry");
    add(out, p.name, std::move(list));
    return true;
}

bool reader::varying(const part& p, bytes_view bytes, group& out)
{
    switch (p.as) {
    case form::message:
        return take_message(p, bytes, out);
    case form::body:
        return take_body(p, bytes, out);
    case form::text:
        if (is_printable(bytes))
            add(out, p.name, std::string{bytes.begin(), bytes.end()});
        else
            add(out, std::string{p.name} + "_bytes", hex_of(bytes));
        return true;
    default:
        add(out, p.name, hex_of(bytes));
        return true;
    }
}

bool reader::read(const part& p, group& out)
{
    if (p.as == form::entries)
        return take_entries(p, out);
    if (p.as == form::rest)
        return m_rest.empty() || varying(p, take(m_rest.size()), out);
    if (p.width > 0) {
        if (m_rest.size() < p.width)
            return fail("it ends before " + std::string{p.name} + " does");
        return fixed(p, take(p.width), out);
    }
    const size_t size = m_counted.value_or(m_rest.size());
    m_counted.reset();
    if (m_rest.size() < size)
        return fail(std::to_string(size) + " bytes of " + std::string{p.name} + " are counted, " +
                    std::to_string(m_rest.size()) + " are there");
    return varying(p, take(size), out);
}

bool reader::read(std::span<const part> parts, group& out)
{
    bool is_there = true;
    for (const part& p : parts) {
        if (p.as == form::optional)
            is_there = is_there && m_rest.size() >= p.width;
        else if ((is_there || p.as == form::rest) && !read(p, out))
            return false;
    }
    return true;
}

bool reader::read_to_the_end(std::span<const part> parts, group& out)
{
    if (!read(parts, out))
        return false;
    return m_rest.empty() || fail(std::to_string(m_rest.size()) + " bytes too many");
}

static uint16_t type_at(bytes_view bytes, byte_order order)
{
    return order == byte_order::little ? load_le16(bytes, 0) : load_be16(bytes, 0);
}

static void add_flags(const message_layout& row, uint16_t type, group& out)
{
    for (const auto& [flag, name] : type_flags)
        if ((row.flags & flag) != 0)
            add(out, name, (type & flag) != 0);
}

// `bytes` begin with the type where the set has one.
static bool read_row(const message_set& set, const message_layout& row, bytes_view bytes, group& fields,
                     std::string& reason)
{
    const size_t behind_type = set.type_order == byte_order::none ? 0 : 2;
    group found;
    if (behind_type > 0)
        add_flags(row, type_at(bytes, set.type_order), found);
    reader in{bytes.subspan(behind_type)};
    const bool is_long_enough = bytes.size() >= row.least_size;
    if (is_long_enough && in.read_to_the_end(row.parts, found)) {
        std::ranges::move(found, std::back_inserter(fields));
        return true;
    }
    if (reason.empty()) // of several rows the first has the say
        reason = std::string{row.kind} + ": " +
                 (is_long_enough ? in.reason()
                                 : std::to_string(bytes.size()) + " bytes, " +
                                       std::to_string(row.least_size) + " are the least");
    return false;
}

static bool read_rows(const message_set& set, bytes_view bytes, std::string& kind, group& fields,
                      std::string& reason)
{
    const uint16_t type = set.type_order == byte_order::none ? uint16_t{0} : type_at(bytes, set.type_order);
    for (const message_layout& row : set.rows) {
        if ((type & ~row.flags) != row.type)
            continue;
        kind = row.kind;
        if (!read_row(set, row, bytes, fields, reason))
            continue;
        reason.clear(); // of rows before
        return true;
    }
    return false;
}

static bool read_other(const message_set& set, bytes_view bytes, std::string& kind, group& fields,
                       std::string& reason)
{
    const auto type = in_network_order(bytes.first(2), set.type_order);
    if (!set.has_others) {
        reason = "no such message has the type " + hex_of(type);
        return false;
    }
    kind = other_kind;
    add(fields, "msgType", hex_of(type));
    add(fields, "data", hex_of(bytes.subspan(2)));
    return true;
}

bool read_message(const message_set& set, bytes_view bytes, std::string& kind, group& fields,
                  std::string& reason)
{
    size_t head_size = 0;
    for (const part& p : set.head)
        head_size += p.width;
    const size_t least = head_size + (set.type_order == byte_order::none ? 0 : 2);
    if (bytes.size() < least) {
        reason = std::to_string(bytes.size()) + " bytes are too few for a message";
        return false;
    }
    reader head{bytes.first(head_size)};
    if (!head.read(set.head, fields)) {
        reason = head.reason();
        return false;
    }
    bytes = bytes.subspan(head_size);
    if (read_rows(set, bytes, kind, fields, reason))
        return true;
    if (!reason.empty())
        return false;
    return read_other(set, bytes, kind, fields, reason);
}

} // namespace rtls::decode
