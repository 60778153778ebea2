#include "impl/writing.h"

#include "decode/hex_bytes.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <optional>

namespace rtls::decode {

namespace {

// The fields of one message, body or entry, and which of them have been asked for.
class source {
public:
    explicit source(const group& fields) : m_fields(fields), m_taken(fields.size()) {}

    const value* take(std::string_view name)
    {
        const auto found = std::ranges::find(m_fields, name, &field::name);
        if (found == m_fields.end())
            return nullptr;
        m_taken[static_cast<size_t>(found - m_fields.begin())] = true;
        return &found->is;
    }
    bool has(std::string_view name) const
    {
        return std::ranges::find(m_fields, name, &field::name) != m_fields.end();
    }
    // The first that nobody has asked for, or one of a name that was there before.
    const field* untaken() const
    {
        const auto found = std::ranges::find(m_taken, false);
        return found == m_taken.end() ? nullptr : &m_fields[static_cast<size_t>(found - m_taken.begin())];
    }

private:
    const group& m_fields;
    std::vector<bool> m_taken;
};

// Walks the parts of one message, body or entry, and takes what they need.
class writer {
public:
    explicit writer(source& fields) : m_fields(fields) {}

    bool write(std::span<const part> parts);
    bool write_flags(uint16_t type, uint16_t flags, byte_order order);
    bool write_body(std::string_view name, std::span<const body_layout> bodies);
    bool write_other(byte_order order);

    // Nothing may be left of the fields.
    encoded result()
    {
        if (m_reason.empty() && m_fields.untaken())
            fail("there is no field " + m_fields.untaken()->name + " in it");
        return m_reason.empty() ? encoded{std::move(m_out), {}} : encoded{{}, std::move(m_reason)};
    }

private:
    bool write(const part& p);
    bool fixed(const part& p);
    bool number(const part& p);
    bool length(const part& p);
    bool role(const part& p);
    bool ip(const part& p);
    bool varying(const part& p);
    bool bytes(std::string_view name, std::optional<size_t> width = {}, byte_order order = byte_order::none);
    bool text(const part& p);
    bool message(const part& p);
    bool entries(const part& p);
    bool known_body(std::span<const body_layout> bodies, int code);
    bool close_length(size_t begin);
    void store(uint64_t value, size_t width, byte_order order);
    bool append(encoded&& part_of_it, std::string_view name);
    bool fail(std::string why);
    template <typename Type>
    const Type* get(std::string_view name);
    byte_order order_of(const part& p) const;

    source& m_fields;
    std::vector<uint8_t> m_out;
    std::string m_reason;
    bool m_role_is_little_endian = false;
    // A length whose bytes are still to come: where its own are, and what the fields say it is.
    const part* m_length = nullptr;
    size_t m_length_at = 0;
    std::optional<int64_t> m_said_length;
};

bool writer::fail(std::string why)
{
    if (m_reason.empty())
        m_reason = std::move(why);
    return false;
}

// The value of the field; null, and a reason, when it is not there or something else.
template <typename Type>
const Type* writer::get(std::string_view name)
{
    const value* found = m_fields.take(name);
    if (!found) {
        fail("the field " + std::string{name} + " is missing");
        return nullptr;
    }
    const Type* typed = std::get_if<Type>(found);
    if (!typed)
        fail("the field " + std::string{name} + " is of another kind");
    return typed;
}

byte_order writer::order_of(const part& p) const
{
    if (p.order != byte_order::by_role)
        return p.order;
    return m_role_is_little_endian ? byte_order::little : byte_order::big;
}

void writer::store(uint64_t value, size_t width, byte_order order)
{
    for (size_t i = 0; i < width; ++i) {
        const size_t place = order == byte_order::little ? i : width - 1 - i;
        m_out.push_back(static_cast<uint8_t>(value >> 8 * place));
    }
}

bool writer::append(encoded&& part_of_it, std::string_view name)
{
    if (!part_of_it.is_valid())
        return fail(std::string{name} + ": " + part_of_it.reason);
    m_out.insert(m_out.end(), part_of_it.bytes.begin(), part_of_it.bytes.end());
    return true;
}

} // namespace

static bool fits(int64_t number, const part& p)
{
    const auto bits = 8 * static_cast<unsigned>(p.width);
    const bool is_signed = p.as == form::signed_number;
    const int64_t least = is_signed ? -(int64_t{1} << (bits - 1)) : 0;
    const int64_t most = (int64_t{1} << (is_signed ? bits - 1 : bits)) - 1;
    return number >= std::max(least, p.least) && number <= std::min(most, p.most);
}

bool writer::number(const part& p)
{
    const auto* number = get<int64_t>(p.name);
    if (!number)
        return false;
    if (!fits(*number, p))
        return fail("the field " + std::string{p.name} + " is out of its range");
    store(static_cast<uint64_t>(*number), p.width, order_of(p));
    return true;
}

bool writer::length(const part& p)
{
    m_length = &p;
    m_length_at = m_out.size();
    m_said_length.reset();
    if (m_fields.has(p.name)) {
        const auto* said = get<int64_t>(p.name);
        if (!said)
            return false;
        m_said_length = *said;
    }
    store(0, p.width, byte_order::big);
    return true;
}

// The bytes from `begin` on are what the open length counts.
bool writer::close_length(size_t begin)
{
    if (!m_length)
        return true;
    const part& p = *m_length;
    m_length = nullptr;
    const size_t there = m_out.size() - begin;
    const auto count = static_cast<int64_t>(there) - static_cast<int64_t>(p.beside);
    if (!fits(count, p) || (m_said_length && *m_said_length != count))
        return fail("the field " + std::string{p.name} + " does not count its " + std::to_string(there) +
                    " bytes");
    const bytes_span out = bytes_span{m_out}.subspan(m_length_at);
    if (p.order == byte_order::little)
        store_le16(out, 0, static_cast<uint16_t>(count));
    else
        store_be16(out, 0, static_cast<uint16_t>(count));
    return true;
}

bool writer::bytes(std::string_view name, std::optional<size_t> width, byte_order order)
{
    const auto* text = get<std::string>(name);
    if (!text)
        return false;
    auto bytes = bytes_of_hex(*text);
    if (!bytes || (width && bytes->size() != *width))
        return fail("the field " + std::string{name} + " is not hex of its size");
    if (order == byte_order::little)
        std::ranges::reverse(*bytes);
    m_out.insert(m_out.end(), bytes->begin(), bytes->end());
    return true;
}

bool writer::ip(const part& p)
{
    const auto* text = get<std::string>(p.name);
    if (!text)
        return false;
    std::array<uint8_t, 16> address{};
    if (inet_pton(p.width == 4 ? AF_INET : AF_INET6, text->c_str(), address.data()) != 1)
        return fail("the field " + std::string{p.name} + " is no address");
    m_out.insert(m_out.end(), address.begin(), address.begin() + static_cast<std::ptrdiff_t>(p.width));
    return true;
}

// A name, or the number of what has none; -1 for neither.
static int64_t number_or_named(const value* found, int (*number_of)(std::string_view))
{
    if (!found)
        return -1;
    if (const auto* number = std::get_if<int64_t>(found))
        return *number;
    const auto* name = std::get_if<std::string>(found);
    return name ? number_of(*name) : -1;
}

bool writer::role(const part& p)
{
    const int64_t role = number_or_named(m_fields.take(p.name), role_of);
    const auto* state = get<int64_t>("node_state");
    if (!state)
        return false;
    if (role < 0 || role > role_mask || *state < 0 || *state > 0xFF || (*state & role_mask) != 0)
        return fail("node_role and node_state are no role byte");
    m_role_is_little_endian = (*state & role_little_endian) != 0;
    m_out.push_back(static_cast<uint8_t>(role | *state));
    return true;
}

bool writer::fixed(const part& p)
{
    switch (p.as) {
    case form::hex_number:
        return bytes(p.name, p.width, order_of(p));
    case form::hex:
        return bytes(p.name, p.width);
    case form::ip:
        return ip(p);
    case form::role:
        return role(p);
    case form::length:
        return length(p);
    default:
        return number(p);
    }
}

bool writer::text(const part& p)
{
    if (!m_fields.has(p.name))
        return bytes(std::string{p.name} + "_bytes");
    const auto* text = get<std::string>(p.name);
    if (text)
        m_out.insert(m_out.end(), text->begin(), text->end());
    return text != nullptr;
}

bool writer::message(const part& p)
{
    const auto* inner = get<group>(p.name);
    if (!inner)
        return false;
    group fields = *inner;
    const auto kind = std::ranges::find(fields, "kind", &field::name);
    if (kind == fields.end() || !std::holds_alternative<std::string>(kind->is))
        return fail(std::string{p.name} + ": the field kind is missing");
    const std::string name = std::get<std::string>(kind->is);
    fields.erase(kind);
    return append(write_message(*p.messages, name, fields), p.name);
}

bool writer::entries(const part& p)
{
    const auto* list = get<std::vector<group>>(p.name);
    if (!list)
        return false;
    if (list->empty())
        return fail(std::string{p.name} + " has no entry");
    for (const group& entry : *list) {
        source fields{entry};
        writer one{fields};
        one.write(p.entry);
        if (!append(one.result(), p.name))
            return false;
    }
    return true;
}

bool writer::known_body(std::span<const body_layout> bodies, int code)
{
    for (const body_layout& row : bodies)
        if (row.code == code)
            return write(row.parts);
    return fail("the field data is missing");
}

bool writer::write_body(std::string_view name, std::span<const body_layout> bodies)
{
    if (!m_fields.has(name))
        return bytes("data");
    const int64_t code = number_or_named(m_fields.take(name), sub_command_of);
    if (code < 0 || code > 0xFFFF)
        return fail("no " + std::string{name} + " is called so");
    store(static_cast<uint64_t>(code), 2, byte_order::big);
    return m_fields.has("data") ? bytes("data") : known_body(bodies, static_cast<int>(code));
}

bool writer::varying(const part& p)
{
    switch (p.as) {
    case form::message:
        return message(p);
    case form::body:
        return append(
            [&] {
                writer body{m_fields};
                const bool is_written = body.write_body(p.name, p.bodies);
                return is_written ? encoded{std::move(body.m_out), {}}
                                  : encoded{{}, std::move(body.m_reason)};
            }(),
            "body");
    case form::text:
        return text(p);
    default:
        return bytes(p.name);
    }
}

bool writer::write(const part& p)
{
    if (p.as == form::entries)
        return entries(p);
    if (p.as == form::rest)
        return !m_fields.has(p.name) || bytes(p.name);
    if (p.width > 0)
        return fixed(p);
    const size_t begin = m_out.size();
    return varying(p) && close_length(begin);
}

bool writer::write(std::span<const part> parts)
{
    bool is_there = true;
    for (size_t i = 0; i < parts.size(); ++i) {
        const part& p = parts[i];
        if (p.as == form::optional)
            is_there = is_there && m_fields.has(parts[i + 1].name);
        else if ((is_there || p.as == form::rest) && !write(p))
            return false;
    }
    return true;
}

bool writer::write_flags(uint16_t type, uint16_t flags, byte_order order)
{
    for (const auto& [bit, name] : type_flags) {
        if ((flags & bit) == 0 || !m_fields.has(name))
            continue;
        const auto* is_set = get<bool>(name);
        if (!is_set)
            return false;
        type = static_cast<uint16_t>(type | (*is_set ? bit : 0));
    }
    store(type, 2, order);
    return true;
}

bool writer::write_other(byte_order order)
{
    return bytes("msgType", 2, order) && bytes("data");
}

static encoded write_row(const message_set& set, const message_layout& row, const group& fields)
{
    source from{fields};
    writer out{from};
    if (out.write(set.head) &&
        (set.type_order == byte_order::none || out.write_flags(row.type, row.flags, set.type_order)))
        out.write(row.parts);
    encoded written = out.result();
    size_t least = row.least_size;
    for (const part& p : set.head)
        least += p.width;
    if (written.is_valid() && written.bytes.size() < least)
        return {{}, "it would be too short"};
    return written;
}

static encoded write_other_message(const message_set& set, const group& fields)
{
    source from{fields};
    writer out{from};
    if (out.write(set.head))
        out.write_other(set.type_order);
    return out.result();
}

encoded write_message(const message_set& set, std::string_view kind, const group& fields)
{
    if (kind == other_kind && set.has_others)
        return write_other_message(set, fields);
    encoded first;
    for (const message_layout& row : set.rows) {
        if (row.kind != kind)
            continue;
        encoded written = write_row(set, row, fields);
        if (written.is_valid())
            return written;
        if (first.reason.empty())
            first.reason = std::string{kind} + ": " + written.reason;
    }
    if (first.reason.empty())
        first.reason = "no such message is called " + std::string{kind};
    return first;
}

encoded write_body(std::span<const body_layout> bodies, const group& fields)
{
    source from{fields};
    writer out{from};
    out.write_body("sub_command", bodies);
    return out.result();
}

} // namespace rtls::decode
