// decode - every message of the network, to named fields and back.
//
// What goes between bridges, gateway and servers has one table of layouts here, by the offsets of
// wire/messaging.h, which decode and encode both walk. docs/decode.md is that table with an example of each row.
// encode(decode(bytes)) is `bytes` for whatever decodes; what does not comes back as its bytes and the reason.
// Ownership  Values: nothing points into what was decoded.
// Threads    Any: pure functions. Nothing waits.
// Bytes      A message is given without its byte stuffing (wire/slip.h).
// Failures   Of bytes and of fields: a reason, in words for people. Of memory: std::bad_alloc.
#pragma once

#include "base/bytes.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace rtls::decode {

struct field;
using group = std::vector<field>; // in the order of the bytes
// Numbers; flags; texts, which MACs, addresses, identifiers and raw bytes are, too; a message within a message; a
// list of entries.
using value = std::variant<int64_t, bool, std::string, group, std::vector<group>>;

struct field {
    std::string name;
    value is;
    bool operator==(const field&) const = default;
};

// Which way it goes, and with that which messages there are and in which byte order.
enum class direction : uint8_t {
    up,         // a bridge's message to the gateway
    down,       // the gateway's to a bridge
    command,    // the servers' to the gateway; decoded from their hex text (bytes_of_command)
    report,     // the gateway's to the message handler: the part with the time, and the report behind it
    management, // the gateway's line to the proxy input
    discovery_request, // a datagram of who looks for the gateway
    discovery_answer   // the gateway's
};
std::string_view direction_name(direction way);
// False when nothing is called so.
bool read_direction(std::string_view name, direction& way);

struct decoded {
    direction way = direction::up;
    std::string kind; // as the figures name it: "heartbeat"; "other" for a type without a name
    group fields;
    // Not empty: the bytes are no message of this direction, for this reason, and these are they.
    std::string reason;
    std::vector<uint8_t> bytes;

    bool is_valid() const { return reason.empty(); }
    bool operator==(const decoded&) const = default;
};

// The value of a field; of one within others by a path ("message.long_addr"). Null when there is none.
const value* find(const group& fields, std::string_view path);

decoded decode(direction way, bytes_view bytes);
// Both parts of a report.
decoded decode_report(bytes_view time, bytes_view report);

struct encoded {
    std::vector<uint8_t> bytes;
    std::string reason; // why there are none

    bool is_valid() const { return reason.empty(); }
};

// The bytes that decode to it. Fields are found by name, whatever their order; lengths may be left out. What was
// not valid gives its bytes back.
encoded encode(const decoded& message);

// A command's bytes as servers publish them. An odd digit at the end is dropped, as the gateway does; empty when
// it is no hex.
std::vector<uint8_t> bytes_of_command(std::string_view text);
std::string text_of_command(bytes_view bytes);

} // namespace rtls::decode
