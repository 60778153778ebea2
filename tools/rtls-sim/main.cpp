// rtls-sim - plays everything around an rtls-gateway: bridges and nodes below it, the servers above it.
#include "common/output.h"
#include "common/program.h"
#include "rtls-sim/command.h"
#include "rtls-sim/network.h"
#include "rtls-sim/status.h"
#include "rtls-sim/tools.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>

namespace sim {

// A subcommand's options live as long as the command line's description.
struct arguments {
    network_options network;
    std::string config_file;
    std::string image_file;
    send_options send;
    image_make_options make;
    std::string info_file;
    image_serve_options serve;
    discover_options discover;
    config_options config;
    std::function<int()> chosen;
};

static const char* const number_group = "Addresses and ports";
static const char* const footer = R"(Exit status:
  0  done
  1  it failed: a file, a port, the output; or --check found that something is missing
  2  the command line is wrong; nothing was done
  3  no gateway there: it did not connect, answer or subscribe in time)";

static constexpr double longest_time = 31'536'000; // seconds: a year
static constexpr double longest_wait = 86'400;     // whose milliseconds an int holds
static constexpr double highest_rate = 1'000'000;
static constexpr double largest_image = 64e6; // bytes

// Both ends included; what is no number is not within.
static CLI::Validator within(double low, double high)
{
    return CLI::Validator{
        [low, high](const std::string& text) {
            double value = 0;
            const bool is_within = CLI::detail::lexical_cast(text, value) && value >= low && value <= high;
            return is_within ? std::string{} : fmt::format("{} is not from {} to {}", text, low, high);
        },
        ""};
}

static CLI::Validator port()
{
    return within(1, 65'535);
}

// Ports come from the gateway's own configuration file, if one is given, unless they are given one by one.
static void add_config(CLI::App& app, arguments& a)
{
    app.add_option("-c,--config", a.config_file, "Take the ports from this gateway configuration")
        ->check(CLI::ExistingFile)
        ->group(number_group);
}

static void add_field_options(CLI::App& app, arguments& a)
{
    field_options& f = a.network.field;
    app.add_option("--host", f.host, "Where the gateway is")->capture_default_str()->group(number_group);
    app.add_option("--win-port", f.win_port, "Its WIN port")
        ->capture_default_str()
        ->check(port())
        ->group(number_group);
    app.add_flag("--discover", f.discover, "Ask for the gateway's address by UDP instead")
        ->group(number_group);
    app.add_option("--discovery-address", f.discovery_address, "Whom to ask; a broadcast address will do")
        ->capture_default_str()
        ->group(number_group);
    app.add_option("--discovery-port", f.discovery_port, "UDP port to ask at")
        ->capture_default_str()
        ->check(port())
        ->group(number_group);
    app.add_option("--bridges", f.bridges, "Bridges")->capture_default_str()->check(within(1, 60'000));
    app.add_option("--nodes", f.nodes, "Nodes behind each bridge")
        ->capture_default_str()
        ->check(within(0, 60'000));
    app.add_option("--rate", f.rate, "Reports per second, all bridges together")
        ->capture_default_str()
        ->check(within(0, highest_rate));
    app.add_option("--seed", f.seed, "Seed of everything random")->capture_default_str();
    app.add_option("--forwarded", f.forwarded_percent, "Percentage of nodes that are reached through others")
        ->capture_default_str()
        ->check(within(0, 100));
    app.add_option("--timestamps", f.timestamp_percent, "Percentage of reports sent with a time of their own")
        ->capture_default_str()
        ->check(within(0, 100));
    app.add_option("--acks", f.ack_percent, "Percentage of reports that ask for an acknowledgement")
        ->capture_default_str()
        ->check(within(0, 100));
    app.add_option("--churn", f.churn, "Seconds until the next bridge goes, and comes again; 0: all stay")
        ->capture_default_str()
        ->check(within(0, longest_time));
    app.add_option("--ota", a.network.ota,
                   "Image that a node fetches: GITID:CRC:SIZE[:PAGESIZE], or its file");
    app.add_option("--ota-node", a.network.ota_node, "The node that fetches it")->capture_default_str();
    app.add_option("--ota-page-size", f.ota_page_size, "Page size where an order names none")
        ->capture_default_str()
        ->check(within(1, 65'535));
}

static void add_server_options(CLI::App& app, arguments& a)
{
    servers_options& s = a.network.servers;
    app.add_option("--bind", s.address, "Address to bind the servers to; * for all")
        ->capture_default_str()
        ->group(number_group);
    app.add_option("--proxy-port", s.proxy_port, "Proxy, where commands are published")
        ->capture_default_str()
        ->check(port())
        ->group(number_group);
    app.add_option("--proxy-input-port", s.proxy_input_port, "Proxy input, for management lines")
        ->capture_default_str()
        ->check(port())
        ->group(number_group);
    app.add_option("--handler-port", s.handler_port, "Message handler")
        ->capture_default_str()
        ->check(port())
        ->group(number_group);
    app.add_option("--broker-port", s.broker_port, "Debug broker")
        ->capture_default_str()
        ->check(port())
        ->group(number_group);
    app.add_flag("!--no-broker", s.broker, "Play no debug broker");
    app.add_flag("--broker-log", s.broker_log, "Show the gateway's log records");
    app.add_option("--images", a.network.images, "Serve this directory of firmware images over HTTP")
        ->check(CLI::ExistingDirectory);
    app.add_option("--http-port", a.network.http_port, "Port for that; 0: any free one")
        ->capture_default_str()
        ->group(number_group);
}

static void add_common_options(CLI::App& app, arguments& a)
{
    add_config(app, a);
    app.add_option("--duration", a.network.duration, "Seconds of reports; 0: until Ctrl-C")
        ->capture_default_str()
        ->check(within(0, longest_time));
    app.add_option("--deadline", a.network.deadline,
                   "Seconds to wait for the gateway, and for what is under way")
        ->capture_default_str()
        ->check(within(0, longest_wait));
    app.add_option("--image", a.image_file,
                   "Firmware image to compare fetched pages with, and to serve pages of")
        ->check(CLI::ExistingFile);
    app.add_flag("-q,--quiet", a.network.console.quiet, "Only counters and notices");
    app.add_option("--lines", a.network.console.lines_per_second, "Most lines a second; 0: all")
        ->capture_default_str();
}

// A port that was not given by itself comes from the configuration file.
static bool apply_config(const CLI::App& app, arguments& a)
{
    if (a.config_file.empty())
        return true;
    const auto ports = read_ports(a.config_file);
    if (!ports)
        return false;
    const auto set = [&app](const char* option, uint16_t& port, uint16_t configured) {
        const CLI::Option* given = app.get_option_no_throw(option);
        if (given == nullptr || given->count() == 0)
            port = configured;
    };
    set("--win-port", a.network.field.win_port, ports->win);
    set("--discovery-port", a.network.field.discovery_port, ports->discovery);
    set("--proxy-port", a.network.servers.proxy_port, ports->proxy);
    set("--proxy-input-port", a.network.servers.proxy_input_port, ports->proxy_input);
    set("--handler-port", a.network.servers.handler_port, ports->handler);
    set("--broker-port", a.network.servers.broker_port, ports->broker);
    set("--http-port", a.network.http_port, ports->images);
    set("--port", a.send.port, ports->proxy);
    set("--port", a.discover.port, ports->discovery);
    return true;
}

static int fail(const std::string& why)
{
    tools::note("rtls-sim", why);
    return static_cast<int>(exit_status::failed);
}

static int start_network(const CLI::App& app, arguments& a)
{
    if (!apply_config(app, a))
        return fail("cannot read " + a.config_file);
    if (a.image_file.empty() && std::filesystem::is_regular_file(a.network.ota))
        a.image_file = a.network.ota;
    if (!a.image_file.empty()) {
        const auto image = read_file(a.image_file);
        if (!image)
            return fail(fmt::format("cannot read {}: {}", a.image_file, std::strerror(errno)));
        a.network.field.ota_image = *image;
        a.network.servers.ota_image = *image;
    }
    return run_network(a.network);
}

static void add_network(CLI::App& app, arguments& a, const char* name, const char* what, bool field,
                        bool servers)
{
    CLI::App* sub = app.add_subcommand(name, what);
    add_common_options(*sub, a);
    if (field)
        add_field_options(*sub, a);
    if (servers)
        add_server_options(*sub, a);
    if (field && servers)
        sub->add_flag("--check", a.network.check,
                      "Exit with 0 only if every report arrived, exactly once and byte for byte");
    if (servers)
        sub->footer(
            fmt::format("Commands on standard input:\n{}  ota-start MAC GITID:CRC:SIZE[:PAGESIZE] | FILE\n"
                        "  nodes  stats  quit",
                        command_help()));
    sub->callback([&a, sub, field, servers] {
        a.network.with_field = field;
        a.network.with_servers = servers;
        a.chosen = [&a, sub] { return start_network(*sub, a); };
    });
}

static void add_send(CLI::App& app, arguments& a)
{
    CLI::App* sub = app.add_subcommand("send", "Publish one command through the proxy's port");
    sub->footer("Commands:\n" + std::string{command_help()});
    add_config(*sub, a);
    sub->add_option("--bind", a.send.address, "Address to bind the proxy to")->capture_default_str();
    sub->add_option("--port", a.send.port, "Proxy port")->capture_default_str()->check(port());
    sub->add_option("--timeout", a.send.timeout, "Seconds to wait for the gateway")
        ->capture_default_str()
        ->check(within(0, longest_wait));
    sub->add_option("--times", a.send.times, "How often to publish it")
        ->capture_default_str()
        ->check(within(1, 1e6));
    sub->add_option("command", a.send.words, "The command, and what belongs to it")->required();
    sub->positionals_at_end();
    sub->callback([&a, sub] {
        a.chosen = [&a, sub] {
            return apply_config(*sub, a) ? run_send(a.send) : fail("cannot read " + a.config_file);
        };
    });
}

static void add_image(CLI::App& app, arguments& a)
{
    CLI::App* image = app.add_subcommand("image", "Firmware images: make, look at, serve");
    image->require_subcommand(1);
    image_traits& traits = a.make.traits;
    CLI::App* make = image->add_subcommand("make", "Write an image with both tags");
    make->add_option("file", a.make.where, "File to write, or directory for one of the usual name");
    make->add_option("--size", traits.size, "Bytes")
        ->capture_default_str()
        ->check(within(smallest_image, largest_image));
    make->add_option("--seed", traits.seed, "Seed of the content")->capture_default_str();
    make->add_option("--git-id", traits.git_id, "Version, such as 0x0102A0FF")->default_str("0x0102A0FF");
    make->add_option("--board-version", traits.board_version, "Board version")->default_str("3");
    make->add_option("--board-revision", traits.board_revision, "Board revision")->default_str("1");
    make->add_option("--page-size", traits.page_size, "Page size, a multiple of 32")
        ->capture_default_str()
        ->check(within(32, 65'504));
    make->add_option("--max-pages", traits.maximum_pages, "Most pages")->capture_default_str();
    make->callback([&a] { a.chosen = [&a] { return run_image_make(a.make); }; });
    CLI::App* info = image->add_subcommand("info", "Print what an image says, and its CRCs");
    info->add_option("file", a.info_file, "The image")->required();
    info->callback([&a] { a.chosen = [&a] { return run_image_info(a.info_file); }; });
    CLI::App* serve = image->add_subcommand("serve", "Serve a directory over HTTP until Ctrl-C");
    serve->add_option("directory", a.serve.directory, "Directory")
        ->check(CLI::ExistingDirectory)
        ->capture_default_str();
    serve->add_option("--bind", a.serve.address, "Address")->capture_default_str();
    serve->add_option("--port", a.serve.port, "Port; 0: any free one")
        ->capture_default_str()
        ->check(within(0, 65'535));
    serve->callback([&a] { a.chosen = [&a] { return run_image_serve(a.serve); }; });
}

static void add_discover(CLI::App& app, arguments& a)
{
    CLI::App* sub = app.add_subcommand("discover", "Ask for the gateway's address by UDP");
    add_config(*sub, a);
    sub->add_option("--address", a.discover.address, "Whom to ask; a broadcast address will do")
        ->capture_default_str();
    sub->add_option("--port", a.discover.port, "UDP port")->capture_default_str()->check(port());
    sub->add_option("--timeout", a.discover.timeout, "Seconds to wait for an answer")
        ->capture_default_str()
        ->check(within(0, longest_wait));
    sub->callback([&a, sub] {
        a.chosen = [&a, sub] {
            return apply_config(*sub, a) ? run_discover(a.discover) : fail("cannot read " + a.config_file);
        };
    });
}

static void add_config_writer(CLI::App& app, arguments& a)
{
    CLI::App* sub = app.add_subcommand("config", "Print a gateway configuration that fits the simulator");
    sub->add_flag("--free-ports", a.config.free_ports, "Replace those of the usual ports that are taken");
    sub->add_option("--pidfile", a.config.pid_file, "Pid file of the gateway")->capture_default_str();
    sub->callback([&a] { a.chosen = [&a] { return run_config(a.config); }; });
}

// The library misses a command where there is one that it does not know.
static std::string sentence_of(const CLI::App* app, const CLI::Error& why)
{
    const auto unknown = app->remaining(true);
    const bool is_misspelt = why.get_name() == "RequiredError" && !unknown.empty();
    return fmt::format("rtls-sim: {} (rtls-sim --help)\n",
                       is_misspelt ? fmt::format("there is no command \"{}\"", unknown.front()) : why.what());
}

static int run(const tools::arguments& given)
{
    arguments a;
    CLI::App app{"Plays everything around an rtls-gateway: bridges and nodes below it, the servers above it.",
                 "rtls-sim"};
    app.require_subcommand(1);
    app.footer(footer);
    app.set_version_flag("--version", fmt::format("rtls-sim {}", tools::program_version));
    app.failure_message(sentence_of);
    add_network(app, a, "all", "Bridges and servers in one process: matches what was sent with what arrives",
                true, true);
    add_network(app, a, "bridges", "Bridges with their nodes, connected to the gateway's WIN port", true,
                false);
    add_network(app, a, "upstream", "Message handler, pub/sub proxy, proxy input and debug broker", false,
                true);
    add_send(app, a);
    add_image(app, a);
    add_discover(app, a);
    add_config_writer(app, a);
    const auto ended = tools::parse(app, given, static_cast<int>(exit_status::usage));
    const int status = ended ? *ended : a.chosen();
    tools::flush_output();
    return status;
}

} // namespace sim

int main(int argc, char** argv)
{
    return tools::run_main(argc, argv, sim::run);
}
