#include "rtls-sim/tools.h"

#include "common/output.h"
#include "common/program.h"
#include "rtls-sim/command.h"
#include "rtls-sim/discovery.h"
#include "rtls-sim/gateway_config.h"
#include "rtls-sim/status.h"

#include <fmt/format.h>
#include <zmq.hpp>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>

namespace sim {

using steady = std::chrono::steady_clock;

static int fail(const std::string& why, exit_status status = exit_status::failed)
{
    tools::note("rtls-sim", why);
    return static_cast<int>(status);
}

// A fact a line, the same way in all commands: its name, then what it is from the same column on.
static void tell(const std::string& name, const std::string& what)
{
    tools::print(fmt::format("{:<14} {}\n", name + ":", what));
}

// The proxy sees who subscribes: so nothing is published before somebody is there to get it.
static bool wait_for_subscriber(zmq::socket_t& proxy, double timeout)
{
    const auto deadline =
        steady::now() + std::chrono::duration_cast<steady::duration>(std::chrono::duration<double>(timeout));
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady::now());
        if (left.count() <= 0)
            return false;
        proxy.set(zmq::sockopt::rcvtimeo, static_cast<int>(left.count()));
        zmq::message_t message;
        if (proxy.recv(message) && !message.empty() && message.data<uint8_t>()[0] == 1)
            return true;
    }
}

int run_send(const send_options& options)
{
    const parsed_command command = parse_command(options.words);
    if (!command.error.empty())
        return fail(command.error + "\ncommands:\n" + std::string{command_help()});
    const std::string text = hex(command.message);
    try {
        zmq::context_t context;
        zmq::socket_t proxy{context, zmq::socket_type::xpub};
        proxy.set(zmq::sockopt::linger, 5000); // closing waits until it is on its way
        proxy.bind(fmt::format("tcp://{}:{}", options.address, options.port));
        if (!wait_for_subscriber(proxy, options.timeout))
            return fail(fmt::format("no gateway subscribed to {}:{} within {} s", options.address,
                                    options.port, options.timeout),
                        exit_status::unreachable);
        for (unsigned i = 0; i < options.times; ++i)
            proxy.send(zmq::buffer(text), zmq::send_flags::none);
        tell("published", text);
        return 0;
    } catch (const zmq::error_t& error) {
        if (error.num() == EADDRINUSE)
            return fail(
                fmt::format("port {} is taken: in a running 'rtls-sim all' or 'rtls-sim upstream', type "
                            "the command on its standard input",
                            options.port));
        return fail(error.what());
    }
}

static void print_traits(const std::string& file, view image)
{
    tell("file", file);
    tell("size", fmt::format("{}", image.size()));
    tell("crc-32", fmt::format("{:08X}  (standard: fw list, upload, ota-set)", crc32(image)));
    tell("download crc", fmt::format("{:08X}  (without inversions: fw-avail)", crc32_uninverted(image)));
    const auto traits = read_traits(image);
    if (!traits)
        return tell("tags", "missing, the gateway's store will refuse it");
    const size_t page_size = traits->page_size;
    tell("git id", fmt::format("{:08X}", traits->git_id));
    tell("board", fmt::format("version {} revision {}", traits->board_version, traits->board_revision));
    tell("pages", fmt::format("{} of {} bytes, at most {}",
                              page_size == 0 ? 0 : (image.size() + page_size - 1) / page_size, page_size,
                              traits->maximum_pages));
    tell("ota", fmt::format("{:08X}:{:08X}:{}:{}", traits->git_id, crc32(image), image.size(), page_size));
}

int run_image_make(const image_make_options& options)
{
    if (options.traits.size < smallest_image)
        return fail(fmt::format("an image has at least {} bytes", smallest_image));
    const bytes image = make_image(options.traits);
    std::filesystem::path path = options.where.empty() ? "." : options.where;
    if (std::filesystem::is_directory(path))
        path /= image_name(options.traits.git_id);
    if (!write_file(path, image))
        return fail(fmt::format("cannot write {}: {}", path.string(), std::strerror(errno)));
    print_traits(path.string(), image);
    return 0;
}

int run_image_info(const std::string& file)
{
    const auto image = read_file(file);
    if (!image)
        return fail(fmt::format("cannot read {}: {}", file, std::strerror(errno)));
    print_traits(file, *image);
    return 0;
}

int run_image_serve(const image_serve_options& options)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    const auto say = [](const std::string& line) {
        tools::print(line + "\n");
        tools::flush_output();
    };
    const image_server server{options.address, options.port, options.directory, say};
    if (!server.is_up())
        return fail(
            fmt::format("cannot serve {} on {}:{}: the port is taken, or it is no address of this host",
                        options.directory, options.address, options.port));
    say(fmt::format("serving {} at http://{}:{}/", options.directory, options.address, server.port()));
    int received = 0;
    sigwait(&set, &received);
    return 0;
}

int run_discover(const discover_options& options)
{
    const auto where = resolve(options.address, options.port);
    if (!where)
        return fail(fmt::format("unknown host {}", options.address));
    const std::chrono::milliseconds timeout{static_cast<int64_t>(options.timeout * 1000)};
    const auto gateway = discover_gateway(*where, device_mac(1, 0), timeout);
    const auto self = discover_self(*where, timeout);
    if (gateway)
        tell("gateway", endpoint_text(*gateway));
    if (self)
        tell("seen as", endpoint_text(*self).substr(0, endpoint_text(*self).find(':')));
    if (self)
        tell("win port", fmt::format("{}", ntohs(self->sin_port)));
    if (!gateway || !self)
        return fail(
            fmt::format("no gateway answers at {} within {} s", endpoint_text(*where), options.timeout),
            exit_status::unreachable);
    return 0;
}

int run_config(const config_options& options)
{
    const gateway_ports ports = options.free_ports ? free_ports() : gateway_ports{};
    tools::print(config_text(ports, options.pid_file));
    return 0;
}

} // namespace sim
