#include "rtls-tail/filter.h"

#include "rtls-tail/lines.h"
#include "tap/failure.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace tail {

using namespace rtls::recording;
using rtls::decode::group;

// Without colons and in lower case, as they are compared.
static void settle(std::vector<std::string>& macs)
{
    for (std::string& mac : macs) {
        std::string digits = lower(mac);
        std::erase(digits, ':');
        const bool is_mac = digits.size() >= 4 && digits.size() <= 16 &&
                            digits.find_first_not_of("0123456789abcdef") == std::string::npos;
        if (!is_mac && !digits.starts_with("id-"))
            throw tap::failure(tap::exit_status::usage, fmt::format("\"{}\" is no MAC", mac));
        mac = digits;
    }
}

void filter::settle()
{
    tail::settle(macs);
    tail::settle(bridges);
    for (const std::string& text : where)
        try {
            m_conditions.push_back(parse_condition(text));
        } catch (const condition_error& why) {
            throw tap::failure(tap::exit_status::usage, fmt::format("--where {}: {}", text, why.what()));
        }
}

static bool hold(const std::vector<condition>& conditions, const sight& it)
{
    if (conditions.empty())
        return true;
    const auto line = line_object(it);
    return std::ranges::all_of(conditions, [&](const condition& holds) { return holds(line); });
}

static bool ends_as_one(const std::vector<std::string>& ends, std::string_view text)
{
    return std::ranges::any_of(ends, [&](const std::string& end) { return text.ends_with(end); });
}

static bool is_of_node(std::string_view name)
{
    static constexpr std::array<std::string_view, 8> names{
        "mac", "long_addr", "ieee_addr", "tag_mac", "reporter", "responder_mac", "reporter_mac", "requester"};
    return std::ranges::find(names, name) != names.end();
}

// Whether a node is named in it, within other messages and lists, too.
static bool names_node(const std::vector<std::string>& macs, const group& fields)
{
    return std::ranges::any_of(fields, [&](const rtls::decode::field& it) {
        if (const auto* inner = std::get_if<group>(&it.is))
            return names_node(macs, *inner);
        if (const auto* list = std::get_if<std::vector<group>>(&it.is))
            return std::ranges::any_of(*list, [&](const group& entry) { return names_node(macs, entry); });
        const auto* text = std::get_if<std::string>(&it.is);
        return text && is_of_node(it.name) && ends_as_one(macs, *text);
    });
}

static bool is_about_node(const std::vector<std::string>& macs, const sight& it)
{
    if (class_of(it.from->topic) == message_class::report)
        return ends_as_one(macs, lower(subject_of(it.from->topic)));
    if (it.event.is_object())
        return std::ranges::any_of(it.event, [&](const auto& value) {
            return value.is_string() &&
                   ends_as_one(macs, lower(value.template get_ref<const std::string&>()));
        });
    return names_node(macs, it.message.fields);
}

// Its own, or that of the message in the envelope.
static bool has_kind(const std::vector<std::string>& kinds, const sight& it)
{
    const auto* inner = rtls::decode::find(it.message.fields, "message.kind");
    const auto* text = inner ? std::get_if<std::string>(inner) : nullptr;
    return std::ranges::find(kinds, it.kind) != kinds.end() ||
           (text && std::ranges::find(kinds, *text) != kinds.end());
}

bool filter::passes(const sight& it) const
{
    return (ways.empty() || std::ranges::find(ways, way_name(it.from->head.way)) != ways.end()) &&
           (kinds.empty() || has_kind(kinds, it)) &&
           (bridges.empty() || ends_as_one(bridges, lower(it.bridge))) &&
           (macs.empty() || is_about_node(macs, it)) && hold(m_conditions, it);
}

bool passes(const std::vector<std::string>& prefixes, std::string_view topic)
{
    return prefixes.empty() || std::ranges::any_of(prefixes, [&](const std::string& prefix) {
               return topic.starts_with(prefix);
           });
}

} // namespace tail
