// layouts - the one table of what messages look like.
//
// A message is a list of parts, one behind the other; so is the body of a generic request, and an entry of a list.
// Where a part stands is wire/messaging.h's to say: layouts.cpp checks each offset against it while it compiles.
// Ownership  Constants.
// Threads    Any.
// Failures   None.
#pragma once

#include "decode/decode.h"

#include "wire/messaging.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string_view>

namespace rtls::decode {

enum class byte_order : uint8_t {
    none,
    little,
    big,
    by_role // big, or little where the role byte before has its highest bit
};

// How a part's bytes become a field.
enum class form : uint8_t {
    number,
    signed_number,
    hex_number, // an identifier: two digits a byte, the highest byte first
    hex,        // bytes in the order in which they stand
    ip,         // IPv6 of 16 bytes, IPv4 of 4
    role,       // two fields of one byte: node_role by name, and node_state, unshifted
    length,     // a number: the bytes of the next part without a width
    data,       // bytes, as many as were counted or are left
    text,       // the same as text; as "<name>_bytes" where it is no printable ASCII
    message,    // a message within
    body,       // of a generic request: sub_command and what follows from it
    entries,    // a list up to the end, of one at least
    optional,   // what follows is only there when at least `width` bytes are
    rest        // bytes that nobody reads; no field when there are none
};

struct message_set;
struct body_layout;

constexpr size_t anywhere = std::numeric_limits<size_t>::max(); // behind a part whose length varies

struct part {
    form as;
    std::string_view name;
    size_t at = anywhere;
    size_t width = 0;
    byte_order order = byte_order::none;
    std::string_view unit = {};
    int64_t least = std::numeric_limits<int64_t>::min();
    int64_t most = std::numeric_limits<int64_t>::max();
    size_t beside = 0; // of a length: bytes that it does not count
    const message_set* messages = nullptr;
    std::span<const body_layout> bodies = {};
    std::span<const part> entry = {};
};

// Several rows may have the same type: the first that fits the bytes, or the fields, is taken.
struct message_layout {
    std::string_view kind;
    uint16_t type;
    uint16_t flags; // bits that may be set in the type
    size_t least_size;
    std::span<const part> parts; // behind the type
};

struct message_set {
    std::span<const part> head; // in front of the type
    byte_order type_order;      // none: there is no type, the parts decide
    bool has_others;            // whether types without a row are messages, too
    std::span<const message_layout> rows;
};

struct body_layout {
    std::string_view name;
    uint16_t code;
    std::span<const part> parts; // behind the sub-command
};

// The flag bits of a type, and the fields that they are.
struct type_flag {
    uint16_t bit;
    std::string_view name;
};
constexpr type_flag type_flags[] = {{msg_flag_ack_requested, "ack_requested"},
                                    {msg_flag_direct_mask, "direct_mask"}};

// A message whose type has no row: its type, and its bytes.
constexpr std::string_view other_kind = "other";

// Of all but management lines.
const message_set& messages_of(direction way);
std::span<const body_layout> bodies_of(direction way);

// The name of a sub-command, of a role; empty when it has none. And back: -1.
std::string_view sub_command_name(uint16_t code);
int sub_command_of(std::string_view name);
std::string_view role_name(uint8_t role);
int role_of(std::string_view name);

// What a role byte has beside the role: the node's state, and how it takes positions.
constexpr uint8_t role_mask = 0x0F;
constexpr uint8_t role_little_endian = 0x80;

} // namespace rtls::decode
