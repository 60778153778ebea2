#include "network.h"

#include "command.h"
#include "image.h"

#include <fmt/format.h>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <system_error>
#include <thread>

namespace sim {

using namespace std::chrono_literals;

static constexpr auto tick = 100ms;
static constexpr auto settle_time = 300ms; // in which what must not come twice would come twice
static constexpr auto lost_after = 30s;
static constexpr size_t most_missing_shown = 20;
static constexpr unsigned checked_nodes = 16; // that are sent commands by a check

// One run: the threads of field and servers, and the main thread, which types, counts and decides.
class network {
public:
    explicit network(const network_options& options);
    int run();

private:
    enum class phase { gathering, reporting, draining, settling, over };

    void start_threads();
    void stop_threads();
    void wait_and_read();
    void read_standard_input();
    void obey(const std::string& line);
    void obey_ota_start(const std::vector<std::string>& words);
    void advance();
    bool has_gathered();
    void begin_reporting();
    void begin_ota();
    void begin_draining();
    void publish_checked_commands();
    bool has_drained() const;
    void enter(phase next);
    std::string counters() const;
    void summarize();
    bool is_good() const;

    const network_options& options_;
    console out_;
    tracker tracker_;
    std::unique_ptr<field> field_;
    std::unique_ptr<servers> servers_;
    std::unique_ptr<image_server> images_;
    std::vector<std::jthread> threads_;
    int signals_ = -1;
    bool input_open_;
    std::string typed_;
    phase phase_ = phase::gathering;
    steady::time_point entered_ = steady::now();
    steady::time_point started_ = steady::now();
    bool timed_out_ = false;
    bool interrupted_ = false;
};

// Signals arrive on a descriptor; the threads started later inherit the mask.
static int open_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

network::network(const network_options& options)
    : options_(options), out_(options.console), signals_(open_signals()), input_open_(options.read_commands)
{
    if (!options.with_servers)
        tracker_.count_only();
    if (options.with_servers)
        servers_ = std::make_unique<servers>(options.servers, options.with_field ? &tracker_ : nullptr, out_);
    if (options.with_field)
        field_ = std::make_unique<field>(options.field, tracker_, out_);
    if (!options.images.empty())
        images_ = std::make_unique<image_server>(options.servers.address, options.http_port, options.images,
                                                 [this](const std::string& line) { out_.notice(line); });
}

void network::start_threads()
{
    if (servers_)
        threads_.emplace_back([this](const std::stop_token& stop) { servers_->run(stop); });
    if (field_)
        threads_.emplace_back([this](const std::stop_token& stop) { field_->run(stop); });
}

// The field first: then nothing is sent any more that the servers would miss.
void network::stop_threads()
{
    while (!threads_.empty()) {
        threads_.back().request_stop();
        threads_.pop_back();
    }
}

int network::run()
{
    if (images_ && !images_->is_up()) {
        out_.notice(fmt::format("cannot serve {} on port {}", options_.images, options_.http_port));
        return 1;
    }
    if (images_)
        out_.notice(fmt::format("serving {} at http://127.0.0.1:{}/", options_.images, images_->port()));
    start_threads();
    if (servers_)
        out_.notice("waiting for the gateway to connect to message handler and proxy");
    while (phase_ != phase::over) {
        wait_and_read();
        advance();
        out_.counters(counters());
        if (!out_.flush())
            phase_ = phase::over; // nobody reads what we say
    }
    stop_threads();
    summarize();
    return options_.check && !is_good() ? 1 : 0;
}

void network::wait_and_read()
{
    std::array<pollfd, 2> waiting{{{signals_, POLLIN, 0}, {input_open_ ? STDIN_FILENO : -1, POLLIN, 0}}};
    poll(waiting.data(), waiting.size(), static_cast<int>(std::chrono::milliseconds{tick}.count()));
    if (waiting[0].revents != 0) {
        signalfd_siginfo info{};
        [[maybe_unused]] const ssize_t got = read(signals_, &info, sizeof info);
        interrupted_ = true;
        enter(phase::over);
    }
    if (waiting[1].revents != 0)
        read_standard_input();
}

void network::read_standard_input()
{
    std::array<char, 4096> buffer{};
    const ssize_t got = read(STDIN_FILENO, buffer.data(), buffer.size());
    if (got <= 0) {
        input_open_ = false;
        return;
    }
    typed_.append(buffer.data(), static_cast<size_t>(got));
    for (size_t end = typed_.find('\n'); end != std::string::npos; end = typed_.find('\n')) {
        obey(typed_.substr(0, end));
        typed_.erase(0, end + 1);
    }
}

void network::obey(const std::string& line)
{
    const auto words = split_words(line);
    if (words.empty())
        return;
    if (words[0] == "quit" || words[0] == "exit")
        return enter(phase::over);
    if (words[0] == "help")
        return out_.notice(fmt::format("{}  ota-start MAC GITID:CRC:SIZE[:PAGESIZE] | FILE\n"
                                       "                                   the node fetches an image\n"
                                       "  nodes  stats  quit",
                                       command_help()));
    if (words[0] == "stats") {
        for (const std::string& text : tracker_.summary())
            out_.notice(text);
        return;
    }
    if (words[0] == "nodes" && field_)
        return field_->list_devices();
    if (words[0] == "ota-start" && field_)
        return obey_ota_start(words);
    const parsed_command command = parse_command(words);
    if (!command.error.empty())
        return out_.notice(command.error + " (help lists the commands)");
    if (!servers_)
        return out_.notice("this process plays no proxy: use rtls-sim send");
    servers_->publish(command.message);
    out_.notice(fmt::format("published {}: {}", words[0], hex(command.message)));
}

void network::obey_ota_start(const std::vector<std::string>& words)
{
    const auto node = words.size() > 2 ? parse_mac(words[1]) : std::nullopt;
    auto request = node ? parse_ota_request(words[2]) : std::nullopt;
    if (const auto image = node && !request ? read_file(words[2]) : std::nullopt) {
        if (const auto traits = read_traits(*image))
            request = ota_request{{traits->git_id, crc32(*image), static_cast<uint32_t>(image->size()), {}},
                                  traits->page_size};
    }
    if (!request)
        return out_.notice("ota-start takes a MAC, and GITID:CRC:SIZE[:PAGESIZE] or an image file");
    field_->start_ota(*node, request->order, request->page_size.value_or(options_.field.ota_page_size));
}

void network::enter(phase next)
{
    phase_ = next;
    entered_ = steady::now();
}

void network::advance()
{
    const std::chrono::duration<double> here = steady::now() - entered_;
    switch (phase_) {
    case phase::gathering:
        if (has_gathered())
            begin_reporting();
        else if (options_.check && here.count() > options_.deadline) {
            timed_out_ = true;
            enter(phase::over);
        }
        break;
    case phase::reporting:
        if (!options_.check)
            tracker_.give_up(lost_after);
        if (options_.duration > 0 && here.count() >= options_.duration)
            begin_draining();
        break;
    case phase::draining:
        if (has_drained())
            enter(phase::settling);
        else if (here.count() > options_.deadline) {
            timed_out_ = true;
            enter(phase::over);
        }
        break;
    case phase::settling:
        if (steady::now() - entered_ >= settle_time)
            enter(phase::over);
        break;
    case phase::over:
        break;
    }
}

bool network::has_gathered()
{
    if (servers_ && !servers_->gateway_is_here())
        return false;
    if (field_)
        field_->let_bridges_connect();
    // Without a check, reports flow as soon as there is somebody to make them.
    return !field_ || !options_.check || field_->is_complete();
}

void network::begin_reporting()
{
    enter(phase::reporting);
    if (!field_)
        return;
    field_->let_reports_flow(true);
    if (!options_.ota.empty())
        begin_ota();
}

// Has the gateway download the image, if it is one that we serve; the node does not wait for that: pages
// that the gateway lacks come from the servers.
void network::begin_ota()
{
    const std::filesystem::path file{options_.ota};
    if (images_ && servers_ &&
        std::filesystem::exists(std::filesystem::path{options_.images} / file.filename()))
        if (const auto traits = read_traits(options_.servers.ota_image))
            obey(fmt::format("upload {:08X} {:08X} http://127.0.0.1:{}/{}", traits->git_id,
                             crc32(options_.servers.ota_image), images_->port(), file.filename().string()));
    obey_ota_start({"ota-start", options_.ota_node, options_.ota});
}

void network::begin_draining()
{
    if (field_)
        field_->let_reports_flow(false);
    if (options_.check && field_ && servers_)
        publish_checked_commands();
    enter(phase::draining);
}

// Of each kind of command that changes nothing, one for a number of nodes; the nodes say what they got.
void network::publish_checked_commands()
{
    static constexpr std::array types = {msg::generic_down, msg::sensor_request, msg::conf_sensor,
                                         msg::tdoa_schedule, msg::node_data};
    const unsigned nodes = std::min(options_.field.nodes, checked_nodes);
    for (unsigned node = 1; node <= nodes; ++node) {
        const mac_t mac = device_mac(1 + node % options_.field.bridges, node);
        for (const msg type : types) {
            // Begins with a sub-command that no node knows, and has every byte that framing must escape.
            const bytes payload =
                writer{}.be16(99).u8(0xF5).u8(0xF6).u8(0xF7).u8(static_cast<uint8_t>(node)).take();
            writer command;
            command.be16(code(type)).u8(1).be16(static_cast<uint16_t>(payload.size())).raw(payload).raw(mac);
            if (type == msg::node_data)
                command.raw(mac);
            tracker_.wanted_command(mac, type, payload);
            servers_->publish(command.take());
        }
    }
}

bool network::has_drained() const
{
    return tracker_.counts().waiting() == 0 && (!field_ || field_->ota().running == 0);
}

std::string network::counters() const
{
    const tally now = tracker_.counts();
    std::string line =
        fmt::format("[{:.0f}s]", std::chrono::duration<double>(steady::now() - started_).count());
    if (field_) {
        const field_state state = field_->state();
        line += fmt::format(" bridges {}/{} nodes {}", state.bridges_joined, options_.field.bridges,
                            state.nodes_introduced);
    }
    if (field_ && servers_)
        line += fmt::format("  sent {} arrived {} under way {} lost {} unexpected {}", now.sent, now.received,
                            now.in_flight, now.lost, now.unexpected);
    else if (field_)
        line += fmt::format("  sent {}", now.sent);
    else if (servers_)
        line += fmt::format("  arrived {}", servers_->reports());
    if (field_)
        line += fmt::format("  acks {}/{} pings {}/{}", now.acks, now.acks_wanted, now.echoes, now.pings);
    if (servers_ && options_.servers.broker)
        line += fmt::format("  log {}", servers_->broker_records());
    return line;
}

void network::summarize()
{
    out_.finish();
    if (field_)
        for (const std::string& line : tracker_.summary())
            out_.notice(line);
    if (servers_ && !field_)
        out_.notice(fmt::format("reports received: {}", servers_->reports()));
    if (servers_)
        for (const std::string& line : servers_->summary())
            out_.notice(line);
    if (options_.check) {
        for (const std::string& line : tracker_.missing(most_missing_shown))
            out_.notice(line);
        if (timed_out_)
            out_.notice("gave up waiting");
        out_.notice(is_good() ? "check: every report arrived, once and right" : "check: FAILED");
    }
    out_.flush();
}

bool network::is_good() const
{
    const tally now = tracker_.counts();
    if (timed_out_ || interrupted_ || phase_ != phase::over || now.waiting() != 0 || now.lost != 0 ||
        now.unexpected != 0 || now.wrong_time != 0 || now.acks_unexpected != 0 || now.echoes_unexpected != 0)
        return false;
    if (field_ && (field_->ota().failed != 0 || (!options_.ota.empty() && field_->ota().succeeded == 0)))
        return false;
    return now.sent > 0;
}

int run_network(const network_options& options)
{
    try {
        return network{options}.run();
    } catch (const std::system_error& error) {
        fmt::print(stderr, "rtls-sim: {}\n", error.what());
    }
    return 1;
}

} // namespace sim
