#include "doors/orders.h"

#include "common/texts.h"
#include "doors/facts.h"
#include "doors/failure.h"
#include "doors/macs.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <charconv>

namespace ctl {

// One line is answered. Anything but `wanted` is the terminal's refusal.
static void order(gateway& g, const std::string& command, std::string_view wanted)
{
    const std::string answer = g.terminal().ask(command, end_of_line);
    if (!answer.starts_with(wanted))
        throw failure(
            exit_status::refused,
            fmt::format("the terminal answers: {}", tools::printable(answer.substr(0, answer.find('\n')))));
}

static constexpr char sent[] = "Command sent successfully!\n";

// --- Nodes

// The whole MAC of the one node that the terminal can mean by the last four digits.
static std::string only_node(gateway& g, const std::string& digits)
{
    auto mac = node_with_mac(g, digits).at("mac").get<std::string>();
    const size_t twins = nodes_with_mac(g, short_mac(mac)).size();
    if (twins > 1)
        throw failure(
            exit_status::refused,
            fmt::format("the terminal knows nodes by their last four digits, and {} nodes end with {}: "
                        "nothing is done",
                        twins, short_mac(mac)));
    return mac;
}

std::string reboot_node(gateway& g, const std::string& digits)
{
    std::string mac = only_node(g, digits);
    order(g, "reboot " + short_mac(mac), sent);
    return mac;
}

std::string delete_node(gateway& g, const std::string& digits)
{
    std::string mac = only_node(g, digits);
    order(g, "del " + short_mac(mac), "Command completed successfully!\n");
    return mac;
}

// --- Firmware

int fetch_image(gateway& g, const std::string& url)
{
    if (url.empty() || url.find_first_of(" \t") != std::string::npos)
        throw failure(exit_status::usage, "a URL has no blanks: write %20");
    const std::string answer = g.terminal().ask("fw get " + url, end_of_line);
    static constexpr std::string_view downloaded = "Firmware downloaded. Index: ";
    int index = 0;
    if (!answer.starts_with(downloaded) ||
        std::from_chars(answer.data() + downloaded.size(), answer.data() + answer.size(), index).ec !=
            std::errc{})
        throw failure(exit_status::refused,
                      fmt::format("the gateway did not get {} (its debug section develop says why): {}", url,
                                  tools::printable(answer.substr(0, answer.find('\n')))));
    return index;
}

std::string apply_firmware(gateway& g, const std::string& digits)
{
    static constexpr std::string_view always_meant = "000a";
    if (short_mac(digits) != always_meant)
        throw failure(
            exit_status::refused,
            fmt::format("the terminal's \"fw apply\" is always for node 000A, whichever is named: {} is "
                        "told by the servers",
                        digits));
    std::string mac = only_node(g, digits);
    order(g, fmt::format("fw apply {}", always_meant), sent);
    return mac;
}

// --- The debug stream

json switch_section(gateway& g, const std::string& section, bool on)
{
    return parse_sections(
        g.terminal().ask(fmt::format("dbg {} {}", section, on ? "y" : "n"), end_of_sections));
}

json sections_of(gateway& g)
{
    return parse_sections(g.terminal().ask("dbg", end_of_sections));
}

void subscribe(gateway& g, const std::string& pattern)
{
    if (!pattern.empty()) {
        const std::string answer = g.terminal().ask("grep " + pattern, end_of_filter_answer);
        if (answer != "GREP: " + pattern + "\n")
            throw failure(exit_status::refused,
                          fmt::format("the terminal answers: {}",
                                      tools::printable(answer.substr(0, answer.find('\n')))));
    }
    order(g, "sub", "subscribed * ok.\n");
}

} // namespace ctl
