#include "rtls-mqtt/options.h"

#include "common/texts.h"
#include "tap/failure.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <unistd.h>

#include <algorithm>
#include <array>

namespace mqtt {

using tap::exit_status;
using tap::failure;

static constexpr uint16_t usual_port = 1883;
static constexpr uint16_t usual_tls_port = 8883;

static CLI::Option* add_text(CLI::App& app, const char* name, std::string& value, const char* meaning,
                             const char* type, const char* group)
{
    return app.add_option(name, value, meaning)->type_name(type)->group(group);
}

static void add_whence(CLI::App& app, request& asked)
{
    const char* const group = "Where it comes from";
    tap::subscription& from = asked.what.from;
    add_text(app, "--tap", from.endpoint, "The gateway's tap, as its key tap/address", "ENDPOINT", group);
    add_text(app, "--gateway", asked.what.gateway,
             "What topics call the gateway; without it this host's name", "NAME", group);
    app.add_option("--timeout", from.patience,
                   "Give up when tap or broker have not answered for so long at the start; 0: never")
        ->type_name("SECONDS")
        ->check(CLI::NonNegativeNumber)
        ->group(group);
    tap::add_certificate_options(app, from.certificates, group);
}

static void add_how(CLI::App& app, request& asked)
{
    const char* const group = "Where it goes";
    broker_options& to = asked.what.to;
    app.add_option("--qos", to.qos, "0: at most once; 1: at least once")
        ->type_name("N")
        ->check(CLI::IsMember({0, 1}))
        ->capture_default_str()
        ->group(group);
    app.add_option("--queue", asked.what.queue, "How many messages may wait for the broker")
        ->type_name("N")
        ->check(CLI::Range(1, 10'000'000))
        ->capture_default_str()
        ->group(group);
    const auto add_seconds = [&](const char* name, auto& value, const char* meaning,
                                 const CLI::Validator& check) {
        app.add_option(name, value, meaning)
            ->type_name("SECONDS")
            ->check(check)
            ->capture_default_str()
            ->group(group);
    };
    add_seconds("--retry", to.retry,
                "From the first attempt to connect to the second; twice as long each time",
                CLI::Range(0.01, 3600.0));
    add_seconds("--retry-max", to.retry_max, "... and no longer than that", CLI::Range(0.01, 86'400.0));
    add_seconds("--keep-alive", to.keep_alive, "How often a silent connection is tried", CLI::Range(5, 3600));
}

static void add_whither(CLI::App& app, request& asked)
{
    const char* const group = "Where it goes";
    broker_options& to = asked.what.to;
    add_text(app, "--broker", asked.broker, "The broker; without a port 1883, with TLS 8883", "HOST[:PORT]",
             group)
        ->capture_default_str();
    add_text(app, "--client-id", to.client_id,
             "What the broker calls us; without it rtls-mqtt- and the gateway", "TEXT", group);
    add_text(
        app, "--login", asked.login_file,
        "A file with the user in its first line and the password in its second, which others must not read",
        "FILE", group);
    app.add_flag("--tls", to.tls.is_wanted, "Encrypt; the system's authorities vouch for the broker")
        ->group(group);
    add_text(app, "--ca", to.tls.ca, "Encrypt; these certificates' owners vouch for the broker", "FILE",
             group);
    CLI::Option* certificate = add_text(app, "--client-certificate", to.tls.certificate,
                                        "Encrypt; show this certificate", "FILE", group);
    CLI::Option* key =
        add_text(app, "--client-key", to.tls.key, "Its key, which others must not read", "FILE", group);
    certificate->needs(key);
    key->needs(certificate);
}

static void add_commands(CLI::App& app, request& asked)
{
    const char* const group = "What may be ordered";
    CLI::Option* allow = app.add_flag("--allow-commands", asked.what.may_command,
                                      "Carry out what is published below rtls/NAME/command/")
                             ->group(group);
    add_text(app, "--terminal", asked.terminal, "The gateway's terminal; without a port 4000", "HOST[:PORT]",
             group)
        ->needs(allow)
        ->capture_default_str();
}

void add_options(CLI::App& app, request& asked)
{
    add_whence(app, asked);
    add_whither(app, asked);
    add_how(app, asked);
    add_commands(app, asked);
    app.add_flag("--json", asked.what.as_json, "Tell in the end how it went as JSON");
}

// --- What was left out

static std::string name_of_host()
{
    std::array<char, 256> name{};
    if (::gethostname(name.data(), name.size() - 1) != 0)
        return "";
    const std::string whole = name.data();
    return whole.substr(0, whole.find('.'));
}

static void settle_names(connector_options& what)
{
    if (what.gateway.empty())
        what.gateway = name_of_host();
    if (!is_level(what.gateway))
        throw failure(
            exit_status::usage,
            fmt::format("\"{}\" is no name for topics: 1 to 64 letters, digits, -, _ and . (--gateway)",
                        tools::printable(what.gateway)));
    if (what.to.client_id.empty())
        what.to.client_id = "rtls-mqtt-" + what.gateway;
    if (tools::printable(what.to.client_id) != what.to.client_id)
        throw failure(exit_status::usage, "--client-id is no printable text");
}

static ctl::endpoint endpoint_of(const std::string& text, uint16_t usual, const char* option)
{
    if (const auto found = ctl::parse_endpoint(text, usual))
        return *found;
    throw failure(exit_status::usage, fmt::format("\"{}\" is no host with or without a port ({})",
                                                  tools::printable(text), option));
}

static void settle_tls(tls_files& tls)
{
    tls.is_wanted = tls.is_wanted || !tls.ca.empty() || !tls.certificate.empty();
    if (!tls.key.empty())
        require_private(tls.key);
}

bool tells_password(const broker_options& options)
{
    const std::string& host = options.where.host;
    const bool is_here = host == "localhost" || host == "::1" || host.starts_with("127.");
    return options.who && !options.tls.is_wanted && !is_here;
}

connector_options settled(request asked)
{
    connector_options& what = asked.what;
    if (what.from.endpoint.empty())
        throw failure(exit_status::usage, "--tap is missing (rtls-mqtt --help)");
    settle_names(what);
    settle_tls(what.to.tls);
    what.to.where =
        endpoint_of(asked.broker, what.to.tls.is_wanted ? usual_tls_port : usual_port, "--broker");
    what.terminal = endpoint_of(asked.terminal, ctl::usual_terminal_port, "--terminal");
    if (!asked.login_file.empty())
        what.to.who = read_login(asked.login_file);
    return what;
}

} // namespace mqtt
