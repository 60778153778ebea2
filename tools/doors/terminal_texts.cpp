#include "doors/terminal_texts.h"

#include "common/texts.h"
#include "doors/failure.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace ctl {

static constexpr size_t npos = std::string_view::npos;

// --- Endings

// Takes the first whole line, with its end, off `text`; nothing when none is whole.
static std::optional<std::string_view> take_line(std::string_view& text)
{
    const size_t end = text.find('\n');
    if (end == npos)
        return std::nullopt;
    const std::string_view line = text.substr(0, end + 1);
    text.remove_prefix(end + 1);
    return line;
}

// The end of the first line that `is_last` says ends the answer.
template <typename Predicate>
static size_t end_behind(std::string_view text, Predicate is_last)
{
    std::string_view rest = text;
    while (const auto line = take_line(rest))
        if (is_last(*line))
            return text.size() - rest.size();
    return npos;
}

size_t end_of_line(std::string_view text)
{
    const size_t end = text.find('\n');
    return end == npos ? npos : end + 1;
}

// A text that begins otherwise is a refusal of one line.
size_t end_of_listing(std::string_view text)
{
    if (!text.starts_with('#'))
        return end_of_line(text);
    return text.ends_with("\n##\n") ? text.size() : npos; // listings are long: no look at all lines each time
}

size_t end_of_sections(std::string_view text)
{
    if (!text.starts_with('\t'))
        return end_of_line(text);
    return end_behind(text, [](std::string_view line) { return line.starts_with("\tul_tdoa "); });
}

size_t end_of_versions(std::string_view text)
{
    if (!text.empty() && text[0] != 'G')
        return end_of_line(text);
    return end_behind(text, [](std::string_view line) { return line == "\n"; });
}

size_t end_of_filter_answer(std::string_view text)
{
    return end_behind(text, [](std::string_view line) {
        return line.starts_with("GREP: ") && !line.starts_with("GREP: cannot set regexp:");
    });
}

// --- Reading lines

namespace {

// Reads a line from left to right. What does not fit makes it fail for good, so that one asks once.
class line_reader {
public:
    explicit line_reader(std::string_view line) : m_line(line), m_rest(line)
    {
        if (m_rest.ends_with('\n'))
            m_rest.remove_suffix(1);
    }

    bool take_if(std::string_view text)
    {
        if (!m_rest.starts_with(text))
            return false;
        m_rest.remove_prefix(text.size());
        return true;
    }
    void expect(std::string_view text) { m_failed |= !take_if(text); }
    void skip_blanks() { m_rest.remove_prefix(std::min(m_rest.find_first_not_of(' '), m_rest.size())); }

    std::string_view take(size_t size)
    {
        m_failed |= m_rest.size() < size;
        const std::string_view taken = m_rest.substr(0, size);
        m_rest.remove_prefix(taken.size());
        return taken;
    }
    // Up to that text, which is taken, too.
    std::string_view take_until(std::string_view text)
    {
        const size_t at = m_rest.find(text);
        m_failed |= at == npos;
        const std::string_view taken = m_rest.substr(0, at);
        m_rest.remove_prefix(std::min(taken.size() + text.size(), m_rest.size()));
        return taken;
    }
    // Up to the next blank, which stays.
    std::string_view take_word() { return take(std::min(m_rest.find(' '), m_rest.size())); }
    std::string_view take_rest() { return std::exchange(m_rest, {}); }
    // Blanks in front are padding.
    int64_t number(int base = 10)
    {
        skip_blanks();
        int64_t value = 0;
        const auto [end, error] = std::from_chars(m_rest.data(), m_rest.data() + m_rest.size(), value, base);
        m_failed |= error != std::errc{};
        m_rest.remove_prefix(static_cast<size_t>(end - m_rest.data()));
        return value;
    }

    // The whole line is read and was as it should be.
    void finish() const
    {
        if (m_failed || !m_rest.empty())
            throw failure(exit_status::refused,
                          fmt::format("the terminal answers what cannot be read: \"{}\"",
                                      tools::printable(m_line.substr(0, 200))));
    }

private:
    std::string_view m_line;
    std::string_view m_rest;
    bool m_failed = false;
};

} // namespace

[[noreturn]] static void refuse(std::string_view answer)
{
    std::string_view rest = answer;
    const std::string_view line = take_line(rest).value_or(answer);
    throw failure(exit_status::refused,
                  fmt::format("the terminal answers: {}", tools::printable(line.substr(0, line.find('\n')))));
}

// The rest behind the first line, which must be that.
static std::string_view behind_title(std::string_view answer, std::string_view title)
{
    if (!answer.starts_with(title))
        refuse(answer);
    return answer.substr(title.size());
}

// --- Nodes and bridges

// "02ab34cd560:01a2b"; that of a bridge which has not named itself is all zeros.
static json mac_or_null(std::string_view text)
{
    constexpr size_t size = 17;
    return text.size() == size && text.find_first_not_of("0:") == npos ? json(nullptr) : json(text);
}

static json role_of(std::string_view text)
{
    static constexpr std::array<std::pair<const char*, const char*>, 7> names{
        {{"und", "undefined"},
         {"fix", "fixed"},
         {"m2d", "mobile"},
         {"c p", "configuration pending"},
         {"brg", "bridge"},
         {"t2d", "tdoa mobile"},
         {"sen", "sensor"}}};
    for (const auto& [word, name] : names)
        if (text == word)
            return name;
    return "unknown";
}

// What stands behind the address where the node has expired, or its address is not its own.
static void skip_remarks(line_reader& line)
{
    if (line.take_if(" act:"))
        line.take(sizeof "11-22 10:20:30" - 1);
    if (line.take_if(" ("))
        line.take_until(")");
    line.take_if(" IP address is duplicated!");
}

static json parse_node(std::string_view text, const char* status, const json& bridge)
{
    line_reader line{text};
    json node{{"status", status}, {"bridge", bridge}, {"last_activity", nullptr}};
    node["mac"] = line.take(17);
    line.expect(" ");
    node["role"] = role_of(line.take(3));
    node["state"] = line.number(16);
    line.expect(" par:");
    node["parent"] = line.take(5);
    line.expect(" sw:");
    node["software"] = line.take(8);
    line.expect(" rgf:");
    node["ranging_frequency"] = line.number();
    line.expect(" ttl:");
    node["lifetime_s"] = line.number();
    line.expect(" sl:");
    node["sublocation"] = line.number(16);
    line.expect(" xyz:");
    node["x"] = line.number();
    line.expect(",");
    node["y"] = line.number();
    line.expect(",");
    node["z"] = line.number();
    line.expect(":");
    node["z_offset"] = line.number();
    line.take_until(" ip:");
    node["address_is_forwarded"] = line.take(2) == "FW";
    line.expect(" ");
    node["address"] = line.take_word();
    skip_remarks(line);
    line.expect(" dtx:");
    node["is_direct"] = line.take(3) == "yes";
    line.finish();
    return node;
}

static json parse_bridge(std::string_view text)
{
    line_reader line{text};
    json bridge{{"id", nullptr}, {"nodes", 0}};
    line.expect("Bridge MAC:");
    bridge["mac"] = mac_or_null(line.take_until(" ip4:"));
    bridge["address"] = line.take_until(":");
    bridge["port"] = line.number();
    line.finish();
    return bridge;
}

namespace {

// A walk down the listing: titles and bridges' lines say what the nodes' lines below them are.
struct network_reader {
    json nodes = json::array();
    json bridges = json::array();
    const char* status = "connected";

    void read(std::string_view line)
    {
        if (line == "####### Floating nodes\n")
            status = "floating";
        else if (line == "####### Expired nodes\n")
            status = "expired";
        else if (line.starts_with("Bridge MAC:"))
            bridges.push_back(parse_bridge(line));
        else if (line != "##\n")
            read_node(line);
    }

private:
    void read_node(std::string_view line)
    {
        const bool is_of_bridge = status == std::string_view{"connected"} && !bridges.empty();
        nodes.push_back(parse_node(line, status, is_of_bridge ? bridges.back()["mac"] : json(nullptr)));
        if (is_of_bridge)
            bridges.back()["nodes"] = bridges.back()["nodes"].get<int>() + 1;
    }
};

} // namespace

json parse_network(std::string_view listing)
{
    std::string_view rest = behind_title(listing, "####### Connected Nodes\n");
    network_reader network;
    while (const auto line = take_line(rest))
        network.read(*line);
    return {{"nodes", std::move(network.nodes)}, {"bridges", std::move(network.bridges)}};
}

// --- The others

// Without the mark in front.
static json parse_operator(std::string_view text)
{
    line_reader line{text};
    json shown{{"waits_for_image", nullptr}};
    line.expect("ip:");
    shown["address"] = line.take_until(":");
    shown["port"] = line.number();
    line.expect(" sub:");
    shown["subscribed"] = line.number() != 0;
    line.expect(" grep:");
    const std::string_view filter = line.take_rest();
    shown["filter"] = filter == "--" ? json(nullptr) : json(tools::printable(filter));
    line.finish();
    return shown;
}

json parse_operators(std::string_view listing)
{
    std::string_view rest = behind_title(listing, "####### Terminal clients\n");
    json operators = json::array();
    for (auto line = take_line(rest); line && *line != "####### WIN clients:\n"; line = take_line(rest))
        if (!line->starts_with('+'))
            operators.push_back(parse_operator(line->substr(1)));
    return operators;
}

// A number of the table, in hex with the eight digits that the HTTP port gives it.
static std::string eight_digits(line_reader& line)
{
    return fmt::format("{:08X}", line.number(16));
}

static json parse_image(std::string_view text)
{
    line_reader line{text};
    json image;
    image["index"] = line.number();
    image["git_id"] = eight_digits(line);
    image["crc32"] = eight_digits(line);
    for (const char* name :
         {"size", "page_size", "pages", "board_version", "board_revision", "maximum_pages"})
        image[name] = line.number();
    line.finish();
    return image;
}

json parse_images(std::string_view listing)
{
    std::string_view rest = listing;
    const auto title = take_line(rest);
    if (!title || !title->starts_with("index "))
        refuse(listing);
    json images = json::array();
    while (const auto line = take_line(rest))
        images.push_back(parse_image(*line));
    return images;
}

json parse_sections(std::string_view answer)
{
    if (!answer.starts_with('\t'))
        refuse(answer);
    json sections = json::object();
    while (const auto text = take_line(answer)) {
        line_reader line{*text};
        line.expect("\t");
        const std::string name{line.take_until(" ")};
        sections[name] = line.take(1) == "y";
        line.finish();
    }
    return sections;
}

std::string parse_version(std::string_view answer)
{
    line_reader line{answer.substr(0, answer.find('\n'))};
    line.take_until(": ");
    std::string version{line.take_rest()};
    line.finish();
    return tools::printable(version);
}

} // namespace ctl
