// topics - the names under which a gateway's messages stand at an MQTT broker.
//
// rtls/<gateway>/status, .../losses, .../node/<MAC>/<kind>, .../event/<name>, .../command/<name>, .../answer/<name>
// Ownership  Values.
// Threads    Any; pure.
// Bytes      ASCII. What strangers choose becomes a part of a name only when is_level or is_mac says so: neither a
//            level of its own nor a wildcard comes from outside.
// Failures   Of memory: std::bad_alloc.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace mqtt {

// 1 to 64 letters, digits, '-', '_' and '.'.
bool is_level(std::string_view text);
// 16 hex digits.
bool is_mac(std::string_view text);

class topics {
public:
    // `gateway`: a level.
    explicit topics(const std::string& gateway) : m_root("rtls/" + gateway + "/") {}

    std::string status() const { return m_root + "status"; }
    std::string losses() const { return m_root + "losses"; }
    // Nothing when it is no MAC; digits in upper case. A kind that is no level is "other".
    std::optional<std::string> node(std::string_view mac, std::string_view kind) const;
    // A name that is no level is "other".
    std::string event(std::string_view name) const;
    // Of all commands, for a subscription; and what the command of a topic is called, nothing when it is none.
    std::string commands() const { return m_root + "command/+"; }
    std::optional<std::string> command_in(std::string_view topic) const;
    // `command`: a level.
    std::string answer(const std::string& command) const { return m_root + "answer/" + command; }

private:
    std::string m_root;
};

} // namespace mqtt
