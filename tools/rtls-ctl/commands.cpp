#include "rtls-ctl/commands.h"

#include "doors/daemon_config.h"
#include "doors/macs.h"
#include "doors/orders.h"
#include "rtls-ctl/figures.h"
#include "rtls-ctl/follow.h"
#include "rtls-ctl/report.h"
#include "rtls-ctl/update.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace ctl {

// --- Whom to ask

static constexpr double usual_timeout = 5;
static constexpr double usual_download_timeout = 60;
static constexpr double usual_update_timeout = 600;

static gateway_address address_given(const request& r)
{
    gateway_address address;
    if (!r.daemon_config.empty())
        address = gateway_by_config(r.daemon_config);
    if (!r.terminal.empty())
        address.terminal = gateway_by_word({}, r.terminal).terminal;
    if (!r.http.empty())
        address.http = http_base(r.http);
    if (!r.token_file.empty())
        address.token_file = r.token_file;
    address.name = address.terminal ? to_text(*address.terminal) : address.http;
    return address;
}

static std::vector<gateway_address> addresses_of(const request& r, const gateways_file& file)
{
    if (!r.terminal.empty() || !r.http.empty() || !r.daemon_config.empty())
        return {address_given(r)};
    std::vector<gateway_address> addresses;
    for (const std::string& word : r.gateways)
        addresses.push_back(gateway_by_word(file, word));
    if (addresses.empty())
        addresses = usual_gateways(file);
    if (!r.token_file.empty())
        for (gateway_address& address : addresses)
            address.token_file = r.token_file;
    return addresses;
}

namespace {

// The gateways of a request. Answers are waited for as long as the request, the file or `otherwise` says.
struct connected {
    connected(const request& r, double otherwise)
    {
        const gateways_file file = load_gateways(r.config_file);
        timeout = r.timeout.value_or(file.timeout.value_or(otherwise));
        for (gateway_address& address : addresses_of(r, file))
            gateways.emplace_back(std::move(address), seconds{timeout}, r.wanted);
    }
    std::vector<gateway> gateways;
    double timeout = 0;
};

} // namespace

static exit_status ask_and_tell(const request& r, const action& act, const table_view& view,
                                double otherwise = usual_timeout)
{
    connected it{r, otherwise};
    return tell(ask_all(it.gateways, act), view, {r.as_json, screen_of(stdout, r.width)});
}

// --- Tables

// A row for each object of a list, a cell for each field.
static table_view list_view(const char* list, std::vector<column> columns, std::vector<const char*> fields)
{
    return {std::move(columns), [list, fields = std::move(fields)](const json& answer) {
                std::vector<table_row> rows;
                for (const json& it : answer.at(list)) {
                    table_row& row = rows.emplace_back();
                    for (const char* field : fields)
                        row.push_back(cell(it, field));
                }
                return rows;
            }};
}

// A row for each field, with its name; those of `first` before the others.
static table_view fields_view(std::vector<std::string> first)
{
    return {{{"", 0, false}, {"", 0, false}}, [first = std::move(first)](const json& answer) {
                std::vector<std::string> names = first;
                for (const auto& [name, value] : answer.items())
                    if (std::ranges::find(first, name) == first.end())
                        names.push_back(name);
                std::vector<table_row> rows;
                rows.reserve(names.size());
                for (const std::string& name : names)
                    rows.push_back({name, cell(answer, name.c_str())});
                return rows;
            }};
}

// A line for each text of a list, behind `what`.
static table_view lines_view(const char* list, const char* what)
{
    return {{{"", 0, false}}, [list, what](const json& answer) {
                std::vector<table_row> rows;
                for (const json& it : answer.at(list))
                    rows.push_back({fmt::format("{}{}", what, it.get<std::string>())});
                return rows;
            }};
}

// --- What gateways know

static node_filter filter_of(const request& r)
{
    node_filter filter = r.nodes;
    if (!filter.bridge.empty())
        filter.bridge = mac_digits(filter.bridge);
    return filter;
}

exit_status show_nodes(const request& r)
{
    const table_view view = list_view("nodes",
                                      {{"MAC", 0, false},
                                       {"ROLE", 1, false},
                                       {"STATUS", 0, false},
                                       {"BRIDGE", 3, false},
                                       {"PARENT", 5, false},
                                       {"SOFTWARE", 1, false},
                                       {"LIVES", 2, true},
                                       {"SUB", 6, true},
                                       {"X", 7, true},
                                       {"Y", 7, true},
                                       {"Z", 7, true},
                                       {"ADDRESS", 4, false},
                                       {"HEARD", 8, false}},
                                      {"mac", "role", "status", "bridge", "parent", "software", "lifetime_s",
                                       "sublocation", "x", "y", "z", "address", "last_activity"});
    const node_filter filter = filter_of(r);
    return ask_and_tell(
        r, [&](gateway& g, outcome& it) { it.answer["nodes"] = nodes_of(g, filter); }, view);
}

exit_status show_node(const request& r)
{
    const std::string digits = mac_digits(r.macs.at(0));
    return ask_and_tell(
        r, [&](gateway& g, outcome& it) { it.answer = node_with_mac(g, digits); },
        fields_view({"mac", "role", "status", "bridge", "parent", "software"}));
}

exit_status show_bridges(const request& r)
{
    const table_view view = list_view(
        "bridges",
        {{"MAC", 0, false}, {"ADDRESS", 0, false}, {"PORT", 1, true}, {"NODES", 0, true}, {"ID", 2, false}},
        {"mac", "address", "port", "nodes", "id"});
    return ask_and_tell(
        r, [](gateway& g, outcome& it) { it.answer = bridges_of(g); }, view);
}

exit_status show_operators(const request& r)
{
    const table_view view =
        list_view("operators",
                  {{"ADDRESS", 0, false}, {"PORT", 0, true}, {"SUBSCRIBED", 1, false}, {"FILTER", 2, false}},
                  {"address", "port", "subscribed", "filter"});
    return ask_and_tell(
        r, [](gateway& g, outcome& it) { it.answer = operators_of(g); }, view);
}

exit_status show_firmware(const request& r)
{
    const table_view view = list_view("images",
                                      {{"SLOT", 0, true},
                                       {"VERSION", 0, false},
                                       {"CRC32", 1, false},
                                       {"SIZE", 1, true},
                                       {"PAGES", 2, true},
                                       {"PAGE SIZE", 3, true},
                                       {"MAX PAGES", 4, true},
                                       {"BOARD", 2, true},
                                       {"REVISION", 2, true}},
                                      {"index", "git_id", "crc32", "size", "pages", "page_size",
                                       "maximum_pages", "board_version", "board_revision"});
    return ask_and_tell(
        r, [](gateway& g, outcome& it) { it.answer = firmware_of(g); }, view);
}

exit_status show_metrics(const request& r)
{
    const table_view view = list_view("metrics", {{"", 0, false}, {"", 0, true}}, {"metric", "value"});
    return ask_and_tell(
        r,
        [&](gateway& g, outcome& it) {
            it.answer["metrics"] = read_figures(g.http_only().text("/metrics"), r.figures);
            if (it.answer["metrics"].empty())
                throw failure(exit_status::refused, "no metric has such a name");
        },
        view);
}

static std::string names_of_failed(const json& checks)
{
    std::string names;
    for (const json& check : checks)
        if (!check.at("ok").get<bool>())
            names += (names.empty() ? "" : ", ") + cell(check, "name");
    return names;
}

exit_status show_health(const request& r)
{
    const table_view view{{{"", 0, false}, {"", 0, false}}, [](const json& answer) {
                              std::vector<table_row> rows{{"version", cell(answer, "version")},
                                                          {"live", cell(answer, "live")},
                                                          {"ready", cell(answer, "ready")}};
                              for (const json& check : answer.at("checks"))
                                  rows.push_back({cell(check, "name"), cell(check, "ok")});
                              return rows;
                          }};
    return ask_and_tell(
        r,
        [](gateway& g, outcome& it) {
            it.answer = health_of(g);
            if (const std::string failed = names_of_failed(it.answer.at("checks")); !failed.empty())
                throw failure(exit_status::refused, "the gateway is not well: " + failed);
        },
        view);
}

// --- What nodes are told

// `done` gets those for which `act` worked; what it throws for one does not keep it from the others.
static exit_status for_each_node(const request& r, const char* done,
                                 std::string (*act)(gateway& g, const std::string& digits))
{
    std::vector<std::string> macs;
    for (const std::string& mac : r.macs)
        macs.push_back(mac_digits(mac));
    const auto tell_each = [&](gateway& g, outcome& it) {
        it.answer[done] = json::array();
        for (const std::string& digits : macs)
            try {
                it.answer[done].push_back(act(g, digits));
            } catch (const failure& why) {
                if (why.status() != exit_status::refused)
                    throw;
                it.failures.push_back(why);
            }
    };
    const std::string what = fmt::format("{} ", done);
    return ask_and_tell(r, tell_each, lines_view(done, what.c_str()));
}

exit_status reboot_nodes(const request& r)
{
    return for_each_node(r, "rebooted", reboot_node);
}

exit_status delete_nodes(const request& r)
{
    return for_each_node(r, "deleted", delete_node);
}

exit_status apply_firmware_to(const request& r)
{
    return for_each_node(r, "applied", apply_firmware);
}

// --- Firmware

exit_status get_firmware(const request& r)
{
    const table_view view{{{"", 0, false}}, [](const json& answer) {
                              return std::vector<table_row>{{"downloaded to slot " + cell(answer, "index")}};
                          }};
    return ask_and_tell(
        r, [&](gateway& g, outcome& it) { it.answer["index"] = fetch_image(g, r.image); }, view,
        usual_download_timeout);
}

exit_status update_firmware(const request& r)
{
    update_options options;
    options.image = r.image;
    if (options.image.find("://") == std::string::npos)
        options.image = version_digits(options.image); // before anybody is asked
    for (const std::string& mac : r.macs)
        options.macs.push_back(mac_digits(mac));
    options.filter = filter_of(r);
    options.timeout = seconds{r.timeout.value_or(usual_update_timeout)};
    options.interval = seconds{r.interval};
    options.download_timeout = seconds{r.timeout.value_or(usual_download_timeout)};
    options.progress = screen_of(stderr, r.width);
    request quick = r; // an answer is waited for as usual: without one it would not be known who is missing
    quick.timeout = usual_timeout;
    connected it{quick, usual_timeout};
    const table_view view =
        list_view("missing", {{"MAC", 0, false}, {"SOFTWARE", 0, false}, {"STATUS", 1, false}},
                  {"mac", "software", "status"});
    return tell(run_update(it.gateways, options), view, {r.as_json, screen_of(stdout, r.width)});
}

// --- The debug stream

exit_status debug_section(const request& r)
{
    return ask_and_tell(
        r,
        [&](gateway& g, outcome& it) {
            it.answer = r.section.empty() ? sections_of(g) : switch_section(g, r.section, r.choice == "on");
        },
        fields_view({"raw", "parsing", "terminal", "win", "discovery", "develop", "ul_tdoa"}));
}

exit_status follow_sections(const request& r)
{
    connected it{r, usual_timeout};
    return follow(it.gateways, {r.sections, r.pattern, r.as_json, screen_of(stdout, r.width)});
}

} // namespace ctl
