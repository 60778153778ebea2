#include "rtls-ctl/command_line.h"

#include "common/completion.h"
#include "common/output.h"
#include "common/program.h"
#include "rtls-ctl/commands.h"
#include "rtls-ctl/report.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <functional>

namespace ctl {

namespace {

// What the options write to, and what is to be done in the end.
struct command_line {
    CLI::App app{"Operator commands for one or more gateways, by their HTTP port or their terminal.",
                 "rtls-ctl"};
    request asked;
    std::string wanted_way = "any";
    std::string role;
    std::string shell;
    std::function<exit_status()> chosen;
};

} // namespace

static const char* const footer =
    R"(Without -g, -c, --terminal or --http: the gateways that the configuration file calls usual; without one
the gateway of this host, by /etc/rtls-gateway/rtls-gateway.conf, or at 127.0.0.1:4000.
Configuration file: --config, $RTLS_CTL_CONFIG, ~/.config/rtls-ctl.conf or /etc/rtls-gateway/rtls-ctl.conf:
  gateways = north
  [north]
  terminal = 10.0.0.5:4000
  http = 10.0.0.5:8080
  token = /etc/rtls-gateway/http.token
A MAC is all its 16 hex digits, or the last 4 or 5.
Exit status, of several gateways the largest:
  0  done
  1  refused by a gateway, not found, not well
  2  the command line or the configuration file is wrong; nothing was done
  3  a gateway cannot be reached, or hung up
  4  no answer in time; firmware update: not all nodes run the image in time)";

static const std::vector<std::string> section_names{"raw",       "parsing", "terminal", "win",
                                                    "discovery", "develop", "ul_tdoa"};

// --- Options

static void add_whom(command_line& line)
{
    CLI::App& app = line.app;
    request& r = line.asked;
    const char* const group = "Whom to ask";
    CLI::Option* gateways = app.add_option("-g,--gateway", r.gateways,
                                           "Gateways: names in the configuration file, or HOST[:PORT] of "
                                           "a terminal; several with commas")
                                ->delimiter(',')
                                ->type_name("NAME,...")
                                ->allow_extra_args(false)
                                ->group(group);
    const auto add = [&](const char* name, std::string& value, const char* meaning, const char* type) {
        return app.add_option(name, value, meaning)->type_name(type)->group(group);
    };
    add("-c,--gateway-config", r.daemon_config, "A gateway of this host, by its own configuration", "FILE")
        ->excludes(gateways);
    add("--terminal", r.terminal, "Where its terminal is", "HOST[:PORT]")->excludes(gateways);
    add("--http", r.http, "Where its HTTP port is", "HOST[:PORT]")->excludes(gateways);
    add("--token", r.token_file, "A file with the token for the HTTP port", "FILE");
    add("--config", r.config_file, "The configuration file of this program", "FILE");
    add("--via", line.wanted_way, "Ask this port alone", "TEXT")
        ->check(CLI::IsMember({"any", "http", "terminal"}));
    app.add_option(
           "--timeout", r.timeout,
           "Seconds to wait for an answer (5; firmware get: 60), or for all nodes (firmware update: 600)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.05, 86'400.0))
        ->group(group);
}

static void add_how(command_line& line)
{
    const char* const group = "How to tell it";
    line.app.add_flag("--json", line.asked.as_json, "JSON: a list with an object for each gateway")
        ->group(group);
    line.app
        .add_option("--width", line.asked.width,
                    "Columns of tables, instead of the window's; in a pipe they "
                    "take what they need")
        ->type_name("COLUMNS")
        ->check(CLI::Range(1, 10'000))
        ->group(group);
}

static void add_filter(CLI::App& sub, command_line& line)
{
    node_filter& filter = line.asked.nodes;
    sub.add_option("--bridge", filter.bridge, "Only nodes of this bridge")->type_name("MAC");
    sub.add_option("--role", line.role, "Only nodes in this role")
        ->check(CLI::IsMember({"undefined", "fixed", "mobile", "configuration-pending", "bridge",
                               "tdoa-mobile", "sensor", "unknown"}));
}

static void add_macs(CLI::App& sub, command_line& line, bool are_required)
{
    CLI::Option* macs = sub.add_option("mac", line.asked.macs, "The nodes")->type_name("MAC");
    macs->required(are_required);
}

// --- Subcommands

using command_function = exit_status (*)(const request& r);

static CLI::App* add_command(CLI::App& parent, command_line& line, const char* name, const char* what,
                             command_function run)
{
    CLI::App* sub = parent.add_subcommand(name, what);
    sub->fallthrough();
    sub->callback([&line, run] { line.chosen = [&line, run] { return run(line.asked); }; });
    return sub;
}

static void add_listings(command_line& line)
{
    CLI::App* nodes = add_command(line.app, line, "nodes", "List the nodes", show_nodes);
    nodes->add_option("--state", line.asked.nodes.state, "Only nodes in this state")
        ->check(CLI::IsMember({"connected", "floating", "expired"}));
    add_filter(*nodes, line);
    nodes->add_option("--text", line.asked.nodes.text, "Only nodes whose MAC, role or address contains it");
    add_command(line.app, line, "bridges", "List the bridges that are connected", show_bridges);
    add_command(line.app, line, "operators", "List who is connected to the terminal", show_operators);
    CLI::App* node = add_command(line.app, line, "node", "Show one node", show_node);
    node->add_option("mac", line.asked.macs, "The node")->type_name("MAC")->required()->expected(1);
    CLI::App* metrics = add_command(line.app, line, "metrics", "Show figures (by HTTP alone)", show_metrics);
    metrics->add_option("name", line.asked.figures, "Only those whose names or labels contain one of these");
    add_command(line.app, line, "health", "Show whether the gateway is well: status 1 when it is not",
                show_health);
}

static void add_orders(command_line& line)
{
    CLI::App* reboot = add_command(line.app, line, "reboot", "Have nodes reboot", reboot_nodes);
    add_macs(*reboot, line, true);
    CLI::App* remove = add_command(line.app, line, "delete", "Have the gateway forget nodes", delete_nodes);
    add_macs(*remove, line, true);
}

static void add_firmware(command_line& line)
{
    CLI::App* firmware = line.app.add_subcommand("firmware", "Images of firmware");
    firmware->require_subcommand(1)->fallthrough();
    add_command(*firmware, line, "list", "List the images in the gateway's store", show_firmware);
    CLI::App* get = add_command(*firmware, line, "get", "Have the gateway download an image", get_firmware);
    get->add_option("url", line.asked.image, "Where the gateway gets it")->type_name("URL")->required();
    CLI::App* apply = add_command(*firmware, line, "apply", "Have a node run the image that it has fetched",
                                  apply_firmware_to);
    add_macs(*apply, line, true);
    apply->footer(
        "The terminal's \"fw apply\" is for node 000A, whichever is named; no other is let through.");
    CLI::App* update =
        add_command(*firmware, line, "update", "Wait until all nodes run an image", update_firmware);
    update
        ->add_option("image", line.asked.image,
                     "Its URL, from which the gateway downloads it first, or its version in hex")
        ->type_name("URL|VERSION")
        ->required();
    add_macs(*update, line, false);
    add_filter(*update, line);
    update->add_option("--interval", line.asked.interval, "Seconds between two looks")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.05, 3600.0))
        ->capture_default_str();
    update->footer(
        "All living nodes are waited for, or those that are named. It is the servers that have them\n"
        "fetch and run the image. On time-out, those that do not run it are listed, and the status is 4.");
}

static void add_stream(command_line& line)
{
    const char* const everybodys = "By the terminal alone. The sections are everybody's: what is switched on "
                                   "or off here is so for all who\n"
                                   "watch, and stays so.";
    CLI::App* debug =
        add_command(line.app, line, "debug", "Show or switch the debug stream's sections", debug_section);
    CLI::Option* section =
        debug->add_option("section", line.asked.section, "The section")->check(CLI::IsMember(section_names));
    CLI::Option* choice =
        debug->add_option("choice", line.asked.choice, "on or off")->check(CLI::IsMember({"on", "off"}));
    section->needs(choice);
    debug->footer(everybodys);
    CLI::App* follow =
        add_command(line.app, line, "follow", "Show the debug stream until Ctrl-C", follow_sections);
    follow
        ->add_option("section", line.asked.sections,
                     "Sections to switch on before; without, those that are on")
        ->check(CLI::IsMember(section_names));
    follow
        ->add_option("--grep", line.asked.pattern,
                     "Only lines that contain this POSIX extended expression: of date, channel and text")
        ->type_name("PATTERN");
    follow->footer(std::string{everybodys} + " Ctrl-C ends with status 0 and switches nothing off.");
}

static void add_completion(command_line& line)
{
    CLI::App* sub = line.app.add_subcommand("completion", "Print what a shell needs to complete commands");
    sub->add_option("shell", line.shell, "The shell")->required()->check(CLI::IsMember({"bash", "zsh"}));
    sub->footer("  source <(rtls-ctl completion bash)\n  rtls-ctl completion zsh >~/.zfunc/_rtls-ctl");
    sub->callback([&line] {
        line.chosen = [&line] {
            tools::print(tools::completion(tools::described(line.app), line.shell, "completion"));
            return exit_status::done;
        };
    });
}

// The library misses a command where there is one that it does not know.
static std::string sentence_of(const CLI::App* app, const CLI::Error& why)
{
    const auto unknown = app->remaining(true);
    const bool is_misspelt = why.get_name() == "RequiredError" && !unknown.empty();
    return fmt::format("rtls-ctl: {} (rtls-ctl --help)\n",
                       is_misspelt ? fmt::format("there is no command \"{}\"", unknown.front()) : why.what());
}

static void add_everything(command_line& line)
{
    line.app.require_subcommand(1);
    line.app.footer(footer);
    line.app.set_version_flag("--version", fmt::format("rtls-ctl {}", tools::program_version));
    line.app.failure_message(sentence_of);
    add_whom(line);
    add_how(line);
    add_listings(line);
    add_orders(line);
    add_firmware(line);
    add_stream(line);
    add_completion(line);
}

// What options could not write where it belongs.
static void settle(command_line& line)
{
    line.asked.wanted = line.wanted_way == "http"       ? way::http
                        : line.wanted_way == "terminal" ? way::terminal
                                                        : way::any;
    std::ranges::replace(line.role, '-', ' ');
    line.asked.nodes.role = line.role;
}

static exit_status run(const std::function<exit_status()>& chosen)
try {
    const exit_status status = chosen();
    tools::flush_output();
    return status;
} catch (const failure& why) {
    print_failure("", why.what());
    return why.status();
}

int run_command_line(const std::vector<std::string>& arguments)
{
    command_line line;
    add_everything(line);
    if (const auto ended = tools::parse(line.app, arguments, static_cast<int>(exit_status::usage)))
        return *ended;
    settle(line);
    return static_cast<int>(run(line.chosen));
}

} // namespace ctl
