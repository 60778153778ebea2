#include "rtls-sim/command.h"

#include "rtls-sim/image.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <sstream>

namespace sim {

using word_list = std::vector<std::string>;

static parsed_command failed(std::string why)
{
    return {{}, std::move(why)};
}

template <typename Number>
static bool read_number(std::string_view text, Number& value)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc{} && end == text.data() + text.size();
}

std::vector<std::string> split_words(std::string_view line)
{
    std::istringstream in{std::string{line}};
    word_list words;
    for (std::string word; in >> word;)
        words.push_back(word);
    return words;
}

std::optional<ota_request> parse_ota_request(std::string_view text)
{
    std::string parts{text};
    std::ranges::replace(parts, ':', ' ');
    const word_list words = split_words(parts);
    if (words.size() < 3 || words.size() > 4)
        return std::nullopt;
    const auto git_id = hex_number(words[0]);
    const auto crc = hex_number(words[1]);
    ota_request request;
    uint16_t page_size = 0;
    if (!git_id || !crc || !read_number(words[2], request.order.size) ||
        (words.size() == 4 && !read_number(words[3], page_size)))
        return std::nullopt;
    request.order.git_id = *git_id;
    request.order.crc = *crc;
    request.order.source = uint16_t{0};
    if (words.size() == 4)
        request.page_size = page_size;
    return request;
}

// A command for one node: the MAC at the end is how the gateway finds it.
static bytes node_command(msg type, const mac_bytes& node, view payload, uint8_t seq = 0)
{
    return writer{}
        .be16(code(type))
        .u8(seq)
        .be16(static_cast<uint16_t>(payload.size()))
        .raw(payload)
        .raw(node)
        .take();
}

bytes page_command(const mac_bytes& node, uint8_t seq, const ota_page_id& id, view image)
{
    const size_t start = std::min(size_t{id.page_size} * id.page, image.size());
    const view part = image.subspan(start, std::min<size_t>(id.page_size, image.size() - start));
    bytes page{part.begin(), part.end()};
    page.resize(id.page_size, 0xFF);
    const bytes payload = writer{}
                              .be16(code(sub::ota_page))
                              .be32(id.git_id)
                              .be32(id.crc)
                              .be16(id.page_size)
                              .be16(id.page)
                              .raw(page)
                              .take();
    return node_command(msg::generic_down, node, payload, seq);
}

// Options written as name=value, behind the words that have a place.
static std::optional<std::map<std::string, int64_t>> read_settings(const word_list& words, size_t from)
{
    std::map<std::string, int64_t> settings;
    for (size_t i = from; i < words.size(); ++i) {
        const size_t equals = words[i].find('=');
        int64_t value = 0;
        if (equals == std::string::npos || !read_number(std::string_view{words[i]}.substr(equals + 1), value))
            return std::nullopt;
        settings[words[i].substr(0, equals)] = value;
    }
    return settings;
}

static parsed_command conf(const mac_bytes& node, const word_list& words)
{
    auto settings = read_settings(words, 2);
    if (!settings)
        return failed("settings are written name=number");
    const auto take = [&](const char* name, int64_t otherwise) {
        const auto found = settings->find(name);
        const int64_t value = found == settings->end() ? otherwise : found->second;
        settings->erase(name);
        return value;
    };
    writer out;
    out.be16(code(msg::conf_node));
    out.u8(static_cast<uint8_t>(take("rf", 60)));
    out.u8(static_cast<uint8_t>(take("rngf", 5)));
    out.u8(static_cast<uint8_t>(take("role", 1)));
    out.u8(static_cast<uint8_t>(take("sl", 1)));
    out.be32(static_cast<uint32_t>(take("x", 0)));
    out.be32(static_cast<uint32_t>(take("y", 0)));
    out.be32(static_cast<uint32_t>(take("z", 0)));
    if (!settings->empty())
        return failed(fmt::format("no setting is called {}", settings->begin()->first));
    return {out.raw(node).take(), {}};
}

static parsed_command ack(const mac_bytes& node, const word_list& words)
{
    uint8_t seq = 0;
    if (words.size() > 2 && !read_number(words[2], seq))
        return failed("a sequence number is 0 to 255");
    return {writer{}.be16(code(msg::rest_ack)).u8(seq).raw(node).take(), {}};
}

// Commands whose payload is given as hex; the message type follows from the word.
static parsed_command with_payload(msg type, const mac_bytes& node, const word_list& words)
{
    const auto payload = from_hex(words.size() > 2 ? words[2] : "");
    uint8_t seq = 0;
    if (!payload || payload->size() > 0xFFFF)
        return failed("the payload is hex, two digits a byte");
    if (words.size() > 3 && !read_number(words[3], seq))
        return failed("a sequence number is 0 to 255");
    return {node_command(type, node, *payload, seq), {}};
}

static parsed_command reboot(const mac_bytes& node, const word_list&)
{
    return {node_command(msg::generic_down, node, writer{}.be16(code(sub::reboot)).be16(2).be16(0).take()),
            {}};
}

static parsed_command ota_apply(const mac_bytes& node, const word_list&)
{
    return {node_command(msg::generic_down, node, writer{}.be16(code(sub::ota_apply)).take()), {}};
}

static parsed_command ota_set(const mac_bytes& node, const word_list& words)
{
    const auto request = words.size() > 2 ? parse_ota_request(words[2]) : std::nullopt;
    if (!request)
        return failed("the image is given as GITID:CRC:SIZE");
    std::optional<uint32_t> source;
    if (words.size() > 3) {
        source = words[3] == "gw" ? 0 : hex_number(words[3]);
        if (!source || *source > 0xFFFF)
            return failed("the source is gw, or a short MAC");
    }
    writer payload;
    payload.be16(code(sub::ota_start)).u8(0x20).u8(source ? 14 : 12);
    payload.be32(request->order.git_id).be32(request->order.crc).be32(request->order.size);
    if (source)
        payload.be16(static_cast<uint16_t>(*source));
    return {node_command(msg::generic_down, node, payload.take()), {}};
}

static parsed_command push_page(const mac_bytes& node, const word_list& words)
{
    ota_page_id id;
    const auto image = words.size() > 3 ? read_file(words[2]) : std::nullopt;
    const auto traits = image ? read_traits(*image) : std::nullopt;
    if (!traits || !read_number(words[3], id.page))
        return failed("give an image file and a page number");
    id.git_id = traits->git_id;
    id.crc = crc32(*image);
    id.page_size = traits->page_size;
    return {page_command(node, 0, id, *image), {}};
}

// Raw data brings its node's MAC along in the block that the node gets; the gateway wants another behind it.
static parsed_command node_data(const mac_bytes& node, const word_list& words)
{
    parsed_command command = with_payload(msg::node_data, node, words);
    if (!command.message.empty())
        command.message.insert(command.message.end(), node.begin(), node.end());
    return command;
}

// The two orders that carry a URL: what the image is, then where.
static parsed_command with_url(msg type, const word_list& words)
{
    const auto id = words.size() > 3 ? hex_number(words[1]) : std::nullopt;
    const auto crc = words.size() > 3 ? hex_number(words[2]) : std::nullopt;
    if (!id || !crc)
        return failed("give identifier, CRC (both hex) and URL");
    const std::string& url = words[3];
    writer out;
    out.be16(code(type)).be32(*id).be32(*crc).be16(static_cast<uint16_t>(url.size()));
    return {out.raw({reinterpret_cast<const uint8_t*>(url.data()), url.size()}).take(), {}};
}

static parsed_command generic(const mac_bytes& node, const word_list& words)
{
    return with_payload(msg::generic_down, node, words);
}

static parsed_command sensor(const mac_bytes& node, const word_list& words)
{
    return with_payload(msg::sensor_request, node, words);
}

static parsed_command conf_sensor(const mac_bytes& node, const word_list& words)
{
    return with_payload(msg::conf_sensor, node, words);
}

static parsed_command tdoa_schedule(const mac_bytes& node, const word_list& words)
{
    return with_payload(msg::tdoa_schedule, node, words);
}

struct command_of_node {
    std::string_view word;
    parsed_command (*make)(const mac_bytes& node, const word_list& words);
};

static constexpr command_of_node node_commands[] = {
    {"reboot", reboot},           {"conf", conf},           {"ack", ack},        {"generic", generic},
    {"ota-set", ota_set},         {"ota-apply", ota_apply}, {"sensor", sensor},  {"page", push_page},
    {"conf-sensor", conf_sensor}, {"tdoa", tdoa_schedule},  {"data", node_data},
};

std::string_view command_help()
{
    return "  reboot MAC                       the node reboots\n"
           "  conf MAC [NAME=NUMBER]...        configure the node: role rf rngf sl x y z\n"
           "  ack MAC [SEQ]                    acknowledge a report of the node\n"
           "  generic MAC HEX [SEQ]            generic request with this payload\n"
           "  sensor MAC HEX [SEQ]             sensor request\n"
           "  conf-sensor MAC HEX [SEQ]        sensor configuration\n"
           "  tdoa MAC HEX [SEQ]               TDOA schedule\n"
           "  data MAC HEX [SEQ]               raw data for the node\n"
           "  ota-set MAC GITID:CRC:SIZE [gw|SHORTMAC]\n"
           "                                   the node fetches this image\n"
           "  ota-apply MAC                    the node runs what it has fetched\n"
           "  page MAC FILE NUMBER             send one page of an image to the node\n"
           "  upload GITID CRC URL             the gateway downloads the image into its store\n"
           "  fw-avail ID CRC URL              the gateway adopts the image and tells all bridges\n"
           "  raw HEX                          publish these bytes\n"
           "MAC is the node's MAC (16 hex digits), or the short one (4) of a simulated node: 0102 is node 2\n"
           "behind bridge 1, 0100 bridge 1 itself. The gateway drops what repeats within 50 ms.\n";
}

parsed_command parse_command(const word_list& words)
{
    if (words.empty())
        return failed("no command");
    if (words[0] == "raw") {
        const auto message = words.size() > 1 ? from_hex(words[1]) : std::nullopt;
        return message ? parsed_command{*message, {}} : failed("raw takes hex, two digits a byte");
    }
    if (words[0] == "upload")
        return with_url(msg::ota_upload, words);
    if (words[0] == "fw-avail")
        return with_url(msg::firmware_available, words);
    const auto found = std::ranges::find(node_commands, std::string_view{words[0]}, &command_of_node::word);
    if (found == std::end(node_commands))
        return failed(fmt::format("unknown command {}", words[0]));
    const auto node = words.size() > 1 ? parse_mac(words[1]) : std::nullopt;
    if (!node)
        return failed("give the node's MAC: 16 hex digits, or 4 for a simulated node");
    return found->make(*node, words);
}

} // namespace sim
