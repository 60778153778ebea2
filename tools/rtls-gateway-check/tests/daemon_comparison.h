// daemon_comparison - whether the check says of a configuration what the daemon makes of it.
//
// Ownership  Trees and files are the caller's.
// Threads    One at a time: the daemon's debug mask and firmware rules are global.
// Failures   A difference is told as a text; "" when there is none.
#pragma once

#include "base/common.h"
#include "base/czmq_ptr.h"
#include "firmware/image_download.h"
#include "link/win_server_private.h"
#include "rtls-gateway-check/check.h"
#include "rtls-gateway.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>

namespace rtls::check {

inline std::string difference(const zpl_item& item, zconfig_t* other)
{
    zconfig_t* child = zconfig_child(other);
    for (const zpl_item& one : item.children) {
        if (!child)
            return fmt::format("line {}: the library has no \"{}\"", one.line, one.name);
        if (one.name != zconfig_name(child) || one.value != zconfig_value(child))
            return fmt::format("line {}: \"{}\" = \"{}\", but the library has \"{}\" = \"{}\"", one.line,
                               one.name, one.value, zconfig_name(child), zconfig_value(child));
        if (std::string below = difference(one, child); !below.empty())
            return below;
        child = zconfig_next(child);
    }
    return child ? fmt::format("the library has \"{}\" as well", zconfig_name(child)) : "";
}

inline zconfig_ptr tree_of_text(const std::string& text)
{
    zchunk_t* chunk = zchunk_new(text.data(), text.size());
    zconfig_ptr tree{zconfig_chunk_load(chunk)};
    zchunk_destroy(&chunk);
    return tree;
}

// Of the reader with lines, and the library's.
inline std::string difference_of_trees(const std::string& text)
{
    const zpl_file file = parse_zpl(text);
    const zconfig_ptr tree = tree_of_text(text);
    if (!tree)
        return file.faults.empty() ? "the library cannot read it" : "";
    if (!file.faults.empty())
        return fmt::format("line {}: the library reads it: {}", file.faults[0].line, file.faults[0].text);
    return difference(file.root, tree.get());
}

inline std::string difference_of_number(const effective_configuration& effective, std::string_view key,
                                        uint64_t has)
{
    const auto number = static_cast<uint64_t>(effective.number(key));
    return number == has ? "" : fmt::format("{}: {}, but the daemon has {}", key, number, has);
}

inline std::string difference_of_text(const effective_configuration& effective, std::string_view key,
                                      const std::string& has)
{
    const std::string& text = effective.text(key);
    return text == has ? "" : fmt::format("{}: \"{}\", but the daemon has \"{}\"", key, text, has);
}

inline std::string difference_of_mask(const effective_configuration& effective)
{
    for (unsigned section = 0; section < DBG_SECTIONS_NUMBER; ++section) {
        const std::string key = std::string{"debug/"} + dbg_section_name[section];
        const bool is_on = (debug_mask >> section & 1) != 0;
        if ((effective.text(key) == "yes") != is_on)
            return key + ": the daemon has the opposite";
    }
    return "";
}

// Of what holds, as far as it can be seen in a gateway that does not run.
inline std::string difference_of_values(const effective_configuration& effective, void* gateway)
{
    const auto& server = *static_cast<WIN_SERVER_t*>(rtls_gateway_get_win_server(gateway));
    const door_rules& rules = server.win_door.rules;
    const uint64_t backlog =
        server.win_backlog > 0 ? static_cast<uint64_t>(server.win_backlog) : 100; // the library's
    const std::string all[] = {
        difference_of_number(effective, "ports/win", server.win_port),
        difference_of_number(effective, "ports/discovery", server.discovery_port),
        difference_of_number(effective, "ports/win_backlog", backlog),
        difference_of_number(effective, "ports/win_connections", rules.most),
        difference_of_number(effective, "ports/win_connections_per_address", rules.most_of_one_address),
        difference_of_number(effective, "firmware_files", server.ota()->files_number()),
        difference_of_text(effective, "ports/win_address", rules.address),
        difference_of_text(effective, "ports/discovery_address", server.discovery_address),
        difference_of_mask(effective),
    };
    const auto* const found = std::ranges::find_if(all, [](const std::string& one) { return !one.empty(); });
    return found == std::end(all) ? "" : *found;
}

// Of the check, and the daemon that reads the file at `path`, which has the text.
inline std::string difference_of_verdicts(const std::string& text, const char* path,
                                          const surroundings& machine)
{
    const zpl_file file = parse_zpl(text);
    const findings found = check_configuration(file, {.machine = &machine, .bridges = {}});
    const auto refusal = std::ranges::find(found, severity::refused, &finding::level);
    debug_mask = 0;
    void* made = rtls_gateway_new(path);
    const std::unique_ptr<void, destroyed_by<rtls_gateway_destroy>> gateway{made};
    image_download_only_from({});
    if (refusal != found.end())
        return gateway ? fmt::format("the daemon takes it, in spite of {}: {}", refusal->key, refusal->text)
                       : "";
    return gateway ? difference_of_values(effective_configuration{file}, gateway.get())
                   : "the daemon refuses it";
}

} // namespace rtls::check
